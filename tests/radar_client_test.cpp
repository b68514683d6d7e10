#include "profile_directory.h"
#include "recorder.h"
#include "records.h"

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/radar_client.h>

#include <gmock/gmock.h>

#include <random>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// An announcement, byte by byte.
class Announcement : public std::string {
public:
    Announcement(std::size_t length, const std::string& name) : std::string(length, '\0') {
        replace(0, 2, "\x01\xB2").replace(2, name.size(), name);
        const std::size_t arpa = length == 150 ? 124 : 160;
        at(18, {net::transAddr("10.1.2.3"), 0});
        at(88, endpoint("236.6.7.35", 6003)).at(98, endpoint("236.6.7.36", 6004));
        at(108, endpoint("236.6.7.37", 6005)).at(arpa, endpoint("236.6.7.41", 6009));
        at(arpa + 10, endpoint("236.6.7.42", 6010)).at(arpa + 20, endpoint("236.6.7.43", 6011));
    }
    Announcement& at(std::size_t position, const NetAddress& value) {
        replace(position, sizeof value, reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    Announcement& at(std::size_t position, char value) {
        (*this)[position] = value;
        return *this;
    }
};

/// A client in a network without addresses: it has no sockets and hears what the test hands it.
class RadarClient : public testing::Test {
protected:
    explicit RadarClient(const std::string& profile = "") : m_profile(profile) {}
    ~RadarClient() override { net::detail::setClock(nullptr); }

    void hear(const std::string& datagram) {
        m_client.OnUdpGroupDataReceived("10.1.2.3", 6878, "236.6.7.5", 6878, datagram.data(),
                                        static_cast<int>(datagram.size()));
    }
    void hearTcp(const std::string& chunk) {
        m_client.OnTcpDataReceived(3, "10.1.2.3", 6878, chunk.data(), static_cast<int>(chunk.size()));
    }
    RadarAddress record(const char* name) const {
        const RadarAddress* found = m_client.getAddress(name, 0);
        return found != nullptr ? *found : RadarAddress{};
    }

    const ProfileDirectory m_profile;
    MultiRadarClientPrivate m_client;
};

class TcpServiceClient : public RadarClient {
protected:
    TcpServiceClient() : RadarClient("[Radar]\nTCPService = yes\n") {}
};

class FixedRadarClient : public RadarClient {
protected:
    FixedRadarClient() : RadarClient("[Radar]\nIP = 127.0.0.9\nTCPService = yes\n") {}
};

TEST_F(RadarClient, ShortAnnouncementFillsNoPlanFields) {
    EXPECT_EQ(outOf([&] { hear(Announcement(150, "North").at(124, endpoint("236.6.7.41", 6010))); }), "")
        << "the short form computes no stream number";
    const RadarAddress north = record("North");
    EXPECT_STREQ(net::transAddr(north.head), "10.1.2.3");
    EXPECT_EQ(text(north.imageStream), "236.6.7.35:6003");
    EXPECT_EQ(text(north.imageState), "236.6.7.37:6005");
    EXPECT_EQ(text(north.arpaStream), "236.6.7.41:6010");
    EXPECT_EQ(text(north.arpaState), "236.6.7.43:6011");
    EXPECT_EQ(bytes(north).substr(48), std::string(68, '\0'));
    EXPECT_EQ(m_client.getRadarStreamCount("North"), 1);
}

TEST_F(RadarClient, LongAnnouncementIsCompletedFromThePlan) {
    hear(Announcement(222, "South"));
    EXPECT_EQ(text(record("South").imageOriginal), "236.6.7.47:6015");
    EXPECT_EQ(text(record("South").infoDev[0]), "236.6.11.234:7824");
    EXPECT_EQ(text(record("South").infoDev[9]), "236.6.11.243:7833");

    const auto odd = Announcement(222, "Odd").at(160, endpoint("236.6.7.41", 6009 + 32 * 48));
    EXPECT_EQ(outOf([&] { hear(odd); }), "streamPort2MultiNum:id out of range[0x40]\n");
    EXPECT_EQ(text(record("Odd").imageOriginal), "236.6.7.7:6677");
    EXPECT_EQ(text(record("Odd").infoDev[9]), "236.6.11.19:7609");
}

TEST_F(RadarClient, UserEndpointsReplaceStandardOnesUnderAnotherName) {
    hear(Announcement(222, "R1").at(73, 1).at(74, endpoint("239.0.0.1", 101)));
    const RadarAddress standard = record("R1"); // not extended
    EXPECT_EQ(text(standard.imageStream), "236.6.7.35:6003");
    const std::pair<std::size_t, plan::EndpointField> places[] = {{74, &RadarAddress::imageStream},
                                                                  {80, &RadarAddress::imageState},
                                                                  {114, &RadarAddress::imageCtrl},
                                                                  {150, &RadarAddress::arpaStream}};
    for (const auto& [position, field] : places) {
        RadarAddress expected = standard;
        Announcement datagram(222, "R1");
        hear(datagram.at(22, 1).at(73, 1).at(position, endpoint("239.0.0.1", 0)));
        EXPECT_EQ(bytes(record("R1:User")), bytes(expected)) << "port 0 keeps the standard endpoint";
        hear(datagram.at(position, endpoint("239.0.0.1", 101)));
        expected.*field = {net::transAddr("239.0.0.1"), net::HtoNs(101), 0};
        EXPECT_EQ(bytes(record("R1:User")), bytes(expected)) << position;
    }
    hear(Announcement(222, "R1").at(22, 1).at(30, 1));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1", "R1:User")) << "no TCP service unasked";
    EXPECT_EQ(bytes(record("R1")), bytes(standard));
}

TEST_F(RadarClient, NamesEndWithTheirFieldAndAreCopiedInOrderUpToTheMaximum) {
    hear(Announcement(150, "ABCDEFGHIJKLMNOP").at(18, {0x01010101, 0}));
    hear(Announcement(222, "ABCDEFGHIJKLMNOP").at(22, 1).at(73, 1));
    hear(Announcement(150, ""));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("", "ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOP:User"));
    char names[4][24]{};
    EXPECT_EQ(m_client.getRadar(names, -1), 0);
    EXPECT_EQ(m_client.getRadar(names, 2), 2);
    EXPECT_STREQ(names[2], "");
    EXPECT_EQ(m_client.getRadar(names, 9), 3);
    EXPECT_STREQ(names[1], "ABCDEFGHIJKLMNOP");
    EXPECT_STREQ(names[2], "ABCDEFGHIJKLMNOP:User");
}

TEST_F(TcpServiceClient, TcpServiceIsAnEntryOfItsOwn) {
    const auto offer = Announcement(222, "R1").at(22, 1).at(23, 2).at(30, 1);
    RadarAddress expected = plan::dedicatedRecord(2);
    expected.head = net::transAddr("10.1.2.3");
    hear(offer);
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1", "R1:TCP"));
    EXPECT_EQ(bytes(record("R1:TCP")), bytes(expected)) << "no TCP endpoint: the dedicated one stays";
    constexpr plan::EndpointField fields[] = {&RadarAddress::imageStream, &RadarAddress::imageCtrl,
                                              &RadarAddress::imageState,  &RadarAddress::arpaStream,
                                              &RadarAddress::arpaCtrl,    &RadarAddress::arpaState};
    for (std::size_t i = 0; i < std::size(fields); ++i)
        for (const auto& [theirs, ours] : {std::pair{0, 0}, {1, 2}, {2, 1}, {4, 255}}) {
            Announcement datagram = offer;
            hear(datagram.at(31 + 6 * i, endpoint("10.1.2.4", 7001)).at(67 + i, static_cast<char>(theirs)));
            RadarAddress one = expected;
            one.*fields[i] = {net::transAddr("10.1.2.4"), net::HtoNs(7001), static_cast<std::uint8_t>(ours)};
            EXPECT_EQ(bytes(record("R1:TCP")), bytes(one)) << "endpoint " << i << ", kind " << theirs;
        }
    Announcement own = offer;
    hear(own.at(37, endpoint("255.255.255.255", 7002)).at(55, endpoint("255.255.255.255", 0)));
    EXPECT_EQ(text(record("R1:TCP").imageCtrl), "10.1.2.3:7002");
    EXPECT_EQ(text(record("R1:TCP").arpaCtrl), "10.1.2.3:0");

    hear(Announcement(222, "R2").at(22, 1).at(30, 2));
    hear(Announcement(222, "R3").at(30, 1));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1", "R1:TCP", "R2", "R3")) << "neither offers it";
}

TEST_F(FixedRadarClient, OnlyTcpEntriesAreKept) {
    hear(Announcement(150, "Plain"));
    hear(Announcement(222, "R1").at(22, 1).at(30, 1));
    hear(Announcement(150, "TCP mast"));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1:TCP", "TCP mast"));
}

TEST_F(RadarClient, TcpStreamIsCutIntoMessages) {
    const std::string message = Announcement(222, "ZQ-7");
    const std::string other = Announcement(222, "ZQ-8");
    hearTcp(message.substr(100));
    hearTcp("\x01\xB2");
    EXPECT_THAT(m_client.getRadar(), IsEmpty()) << "a stream is picked up at the start of a message";
    hearTcp(message.substr(0, 4));
    hearTcp(message.substr(4, 117));
    EXPECT_THAT(m_client.getRadar(), IsEmpty());
    hearTcp(message.substr(121) + other);
    EXPECT_THAT(m_client.getRadar(), ElementsAre("ZQ-7")) << "what follows in the same chunk is discarded";
    hearTcp(message.substr(0, 60));
    hearTcp(other);
    EXPECT_THAT(m_client.getRadar(), ElementsAre("ZQ-7", "ZQ-8")) << "a new start replaces a message";
    hearTcp(std::string("\x01\xC2\x00", 3) + std::string(36, 'x'));
    hearTcp(message.substr(100));
    EXPECT_EQ(m_client.getRadar().size(), 2U) << "38 bytes of class C2 are taken out of the stream";
    hearTcp(Announcement(222, "AB-9"));
    EXPECT_EQ(m_client.getRadar().size(), 2U) << "a fixed radar's name begins with ZQ";
}

std::int64_t s_time;

TEST_F(RadarClient, RadarLeavesTheTableAfterEightSilentSeconds) {
    net::detail::setClock([] { return s_time; });
    s_time = 1000;
    hear(Announcement(150, "Early"));
    s_time = 1001;
    hear(Announcement(150, "Late"));
    s_time = 1007;
    m_client.query();
    EXPECT_THAT(m_client.getRadar(), ElementsAre("Early", "Late"));
    s_time = 1008;
    EXPECT_THAT(outOf([&] { m_client.query(); }),
                testing::MatchesRegex("Remove radar,name:Early,\\[..:..:40,..:..:48\\]\n"));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("Late"));
    hear(Announcement(150, "Late"));
    s_time = 1015;
    m_client.query();
    EXPECT_THAT(m_client.getRadar(), ElementsAre("Late")) << "refreshed by its second announcement";
}

TEST_F(RadarClient, FullTableKeepsWhomItListsAndTakesOthersWhenSilentOnesHaveLeft) {
    net::detail::setClock([] { return s_time; });
    s_time = 1000;
    hear(Announcement(150, "Real"));
    for (int i = 0; i < 5000; ++i)
        hear(Announcement(150, "F" + std::to_string(i)));
    EXPECT_EQ(m_client.getRadar().size(), 4096U);
    s_time = 1007;
    hear(Announcement(150, "Real").at(88, endpoint("239.0.0.1", 101)));
    EXPECT_EQ(text(record("Real").imageStream), "239.0.0.1:101") << "it is listed, and updated";
    s_time = 1008;
    outOf([&] { m_client.query(); });
    hear(Announcement(150, "Late"));
    EXPECT_THAT(m_client.getRadar(), ElementsAre("Late", "Real"));
}

TEST_F(RadarClient, LookUpsKnowTheirBounds) {
    hear(Announcement(150, "R1"));
    const RadarAddress* first = m_client.getAddress("R1", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(m_client.getAddress("R1", 1), first + 1) << "behind the last record, not to be read";
    for (const int stream : {2, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        EXPECT_EQ(m_client.getAddress("R1", stream), nullptr) << stream;
    EXPECT_EQ(m_client.getAddress("R2", 0), nullptr);
    EXPECT_EQ(m_client.getRadarStreamCount("R2"), 0);
    EXPECT_EQ(m_client.getRadarStreamCount("Default"), 0);

    for (const auto& [name, stream] : {std::pair{"Default", 0}, {"DefaultX", 5}, {"R2", 101}}) {
        const RadarAddress* record = nullptr;
        EXPECT_EQ(outOf([&, n = name, s = stream] { record = m_client.getAddress(n, s); }),
                  "defalut radar address\n");
        EXPECT_EQ(bytes(*record), bytes(plan::defaultRecord()));
    }
}

TEST_F(RadarClient, RenumberingNamesTheHostItWants) {
    hear(Announcement(150, "R1"));
    EXPECT_EQ(outOf([&] {
                  for (const char* name : {"R1", "Nobody", "Default"})
                      m_client.queryForAdjust(name);
              }),
              "query for reset id=0x10\n"
              "queryForAdjust: donot find radar[Nobody]\n"
              "defalut radar address\nquery for reset id=0x1\n");
}

TEST_F(RadarClient, DiagnosticsPrintARecordWhenItDiffersFromTheLast) {
    hear(Announcement(150, "R1"));
    EXPECT_EQ(outOf([&] { m_client.getAddress("R1", 0); }), "") << "off by default";
    ::setenv("RADAR_DIAGNOSTICS", "1", 1);
    EXPECT_EQ(outOf([&] {
                  for (const int stream : {0, 0, 1})
                      m_client.getAddress("R1", stream);
              }),
              "\r\nMultiAddress(false):00 0x0000\r\n"
              "ImageStream: 236.6.7.35:6003 UDP\r\nImageOriginal: 0.0.0.0:0 UDP\r\n"
              "ImageCtrl:   236.6.7.36:6004 UDP\r\nImageState:  236.6.7.37:6005 UDP\r\n"
              "ArpaStream: 236.6.7.41:6009 UDP\r\nArpaCtrl:   236.6.7.42:6010 UDP\r\n"
              "ArpaState:  236.6.7.43:6011 UDP\r\n\r\n");
    ::unsetenv("RADAR_DIAGNOSTICS");

    RadarAddress dedicated = plan::dedicatedRecord(0x12);
    dedicated.imageStream.type = 2;
    dedicated.imageCtrl.type = 3;
    const std::string printed = outOf([&] { MultiRadarClientPrivate::printRadarAddrs(dedicated); });
    EXPECT_THAT(printed, HasSubstr("MultiAddress(true):12 0x1EE7\r\n"));
    EXPECT_THAT(printed, HasSubstr("ImageStream: 234.5.8.89:35161 TCP Client\r\n"));
    EXPECT_THAT(printed, HasSubstr("ImageCtrl:   234.5.8.90:35162 null\r\n"));
}

TEST_F(TcpServiceClient, GarbageIsDroppedOrStaysUnderTheNameThatItIsAround) {
    std::minstd_rand random(1);
    const auto noise = [&](std::size_t length) {
        std::string result(length, '\0');
        for (char& c : result)
            c = static_cast<char>(random() >> 8);
        return result;
    };
    const Output output;
    for (std::size_t length = 0; length < 1024; ++length)
        if (length != 150 && length != 222)
            hear(("\x01\xB2" + noise(length)).substr(0, length));
    for (const char* code : {"\x01\xB1", "\x02\xB2", "\x01\xC2", "\xB2\x01"})
        for (const std::size_t length : {148U, 220U})
            hear(code + noise(length));
    EXPECT_THAT(m_client.getRadar(), IsEmpty());
    EXPECT_EQ(output.out(), "");
    for (int i = 0; i < 10'000; ++i)
        hear(Announcement(150, "X").substr(0, 18) + noise(i % 2 == 0 ? 132 : 204));
    EXPECT_THAT(m_client.getRadar(), testing::IsSubsetOf({"X", "X:User", "X:TCP"}));
    for (int i = 0; i < 100'000; ++i)
        hearTcp((i % 6 == 0 ? "\x01\xB2ZQ" : i % 6 == 3 ? "\x01\xC2" : "") + noise(random() % 300));
    const auto names = m_client.getRadar();
    EXPECT_GT(names.size(), 3U);
    for (const std::string& name : names)
        EXPECT_THAT(name[0], testing::AnyOf('X', 'Z'));
}

TEST(MultiRadarClientHandle, ListenersFollowTheLocalAddressWhichEndsASearch) {
    MultiRadarClient client;
    Addresses early;
    client.addListener(&early);
    client.setLocalIP(net::transAddr("127.0.0.1"));
    ASSERT_TRUE(early.reaches(1, std::chrono::milliseconds(4500)));

    Addresses late;
    client.addListener(&late);
    client.addListener(&late); // told again, but listed once
    client.removeListener(&early);
    for (int i = 0; i < 2; ++i) // the second time it is no news
        client.setLocalIP(net::transAddr("127.0.0.2"));
    ASSERT_TRUE(late.reaches(3));
    client.setLocalIP(net::transAddr("127.0.0.3"));
    ASSERT_TRUE(late.reaches(4));
    EXPECT_THAT(late.all(), ElementsAre("127.0.0.1", "127.0.0.1", "127.0.0.2", "127.0.0.3"));
    EXPECT_THAT(early.all(), ElementsAre("127.0.0.1"));
}

} // namespace
