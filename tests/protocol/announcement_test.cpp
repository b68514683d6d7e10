#include "../announcement_bytes.h"

#include <UdpSocket/protocol/announcement.h>

namespace {

using protocol::Announcement;
using protocol::DisplayOptions;

constexpr DisplayOptions kTcpService{false, true};

std::vector<std::string> names(const Announcement& announcement) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < announcement.listingCount; ++i)
        result.emplace_back(announcement.listings[i].name);
    return result;
}

Announcement read(std::string_view datagram, const DisplayOptions& options = {}) {
    const auto announcement = protocol::readAnnouncement(datagram, options);
    EXPECT_TRUE(announcement);
    return announcement.value_or(Announcement{});
}

constexpr plan::EndpointField kFields[] = {&RadarAddress::imageStream, &RadarAddress::imageCtrl,
                                           &RadarAddress::imageState,  &RadarAddress::arpaStream,
                                           &RadarAddress::arpaCtrl,    &RadarAddress::arpaState};

/// The first entry listed.
RadarAddress record(std::string_view datagram) {
    return read(datagram).listings[0].record;
}

RadarEndpoint udp(const NetAddress& endpoint) {
    return {endpoint.ip, endpoint.port, 0};
}

TEST(Announcement, HostWithEndpointsOfItsOwnComposesItsImageEndpoints) {
    RadarAddress own{};
    own.imageStream = {net::transAddr("239.1.1.1"), net::HtoNs(111), 2}; // kinds are not announced
    own.imageState = udp(endpoint("239.1.1.3", 113));
    own.arpaStream = udp(endpoint("239.1.1.4", 114)); // the plan's is announced
    RadarAddress expected{};
    for (const plan::EndpointField field : kFields)
        expected.*field = udp(plan::announcedEndpoint(17, field, 0));
    expected.imageStream = udp(own.imageStream);
    expected.imageCtrl = {};
    expected.imageState = own.imageState;
    const std::string datagram = protocol::composeAnnouncement("Own", 17, own);
    EXPECT_EQ(datagram.size(), 150U);
    EXPECT_EQ(bytes(record(datagram)), bytes(expected));
}

TEST(Announcement, NamesAreCutAtSixteenBytes) {
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    for (const unsigned streams : {1U, 2U}) {
        for (const std::size_t length : {0U, 15U, 16U, 17U})
            EXPECT_EQ(names(read(protocol::composeAnnouncement(letters.substr(0, length), 16, streams))),
                      std::vector{letters.substr(0, std::min<std::size_t>(length, 16))});
        const std::string longest(protocol::maxComposedName(streams), 'x');
        const std::string datagram = protocol::composeAnnouncement(longest, 16, streams);
        EXPECT_EQ(datagram.size(), streams == 1 ? 150U : 222U);
        EXPECT_EQ(datagram.substr(17, 6), std::string("x\0\0\0\0x", 6)) << "cut, and what follows is left";
        EXPECT_EQ(datagram.substr(94, 4), std::string(4, '\0')) << "but behind endpoints";
    }
    // no zero byte in the field, and the next one begins at once
    const auto full =
        AnnouncementBytes(222, letters.substr(0, 16)).at(18, {0x01010101, 0}).at(22, 1).at(30, 1);
    EXPECT_THAT(names(read(full, kTcpService)), ElementsAre("abcdefghijklmnop", "abcdefghijklmnop:TCP"));
    EXPECT_THAT(names(read(AnnouncementBytes(full).at(73, 1))), ElementsAre("abcdefghijklmnop:User"));
    for (const char* listed : {"North", "North:User", "North:TCP"})
        EXPECT_EQ(protocol::announcedName(listed), "North");
    EXPECT_EQ(protocol::announcedName("North:Tcp"), "North:Tcp");
}

TEST(Announcement, LongFormIsCompletedFromThePlanByItsArpaPort) {
    const auto withPort = [](unsigned short port) {
        return read(AnnouncementBytes(222, "R").at(160, endpoint("236.6.7.41", port)));
    };
    EXPECT_EQ(text(withPort(6010).listings[0].record.imageOriginal), "236.6.7.47:6015");
    const Announcement odd = withPort(6009 + 32 * 48);
    EXPECT_EQ(odd.arpaPort, 6009 + 32 * 48);
    EXPECT_EQ(text(odd.listings[0].record.imageOriginal), "236.6.7.7:6677");
    EXPECT_EQ(text(odd.listings[0].record.infoDev[9]), "236.6.11.19:7609");
    EXPECT_EQ(net::transAddr(odd.listings[0].record.head), std::string("10.1.2.3"));
    EXPECT_EQ(net::transAddr(odd.secondStream->head), std::string("10.1.2.3"));
}

TEST(Announcement, UserEndpointsReplaceStandardOnesUnderAnotherName) {
    const AnnouncementBytes plain(222, "R1");
    const RadarAddress standard = record(plain);
    EXPECT_EQ(bytes(record(AnnouncementBytes(plain).at(22, 1).at(74, endpoint("239.0.0.1", 101)))),
              bytes(standard))
        << "not said to be valid";
    const std::pair<std::size_t, plan::EndpointField> places[] = {{74, &RadarAddress::imageStream},
                                                                  {80, &RadarAddress::imageState},
                                                                  {114, &RadarAddress::imageCtrl},
                                                                  {150, &RadarAddress::arpaStream}};
    for (const auto& [position, field] : places) {
        AnnouncementBytes datagram = plain;
        datagram.at(22, 1).at(73, 1).at(position, endpoint("239.0.0.1", 0));
        EXPECT_THAT(names(read(datagram)), ElementsAre("R1:User"));
        EXPECT_EQ(bytes(record(datagram)), bytes(standard)) << "port 0 keeps the standard endpoint";
        datagram.at(position, endpoint("239.0.0.1", 101));
        RadarAddress expected = standard;
        expected.*field = udp(endpoint("239.0.0.1", 101));
        EXPECT_EQ(bytes(record(datagram)), bytes(expected)) << position;
    }
}

TEST(Announcement, TcpServiceIsAnEntryOfItsOwn) {
    const auto offer = AnnouncementBytes(222, "R1").at(22, 1).at(23, 2).at(30, 1);
    const auto service = [](std::string_view datagram) {
        const Announcement announcement = read(datagram, kTcpService);
        EXPECT_THAT(names(announcement), ElementsAre("R1", "R1:TCP"));
        return announcement.listings[1].record;
    };
    RadarAddress expected = plan::dedicatedRecord(2);
    expected.head = net::transAddr("10.1.2.3");
    EXPECT_EQ(bytes(service(offer)), bytes(expected)) << "no TCP endpoint: the dedicated one stays";
    for (std::size_t i = 0; i < std::size(kFields); ++i)
        for (const auto& [theirs, ours] : {std::pair{0, 0}, {1, 2}, {2, 1}, {4, 255}}) {
            AnnouncementBytes datagram = offer;
            datagram.at(31 + 6 * i, endpoint("10.1.2.4", 7001)).at(67 + i, static_cast<char>(theirs));
            RadarAddress one = expected;
            one.*kFields[i] = {net::transAddr("10.1.2.4"), net::HtoNs(7001), static_cast<std::uint8_t>(ours)};
            EXPECT_EQ(bytes(service(datagram)), bytes(one)) << "endpoint " << i << ", kind " << theirs;
        }
    const auto own = AnnouncementBytes(offer)
                         .at(37, endpoint("255.255.255.255", 7002))
                         .at(55, endpoint("255.255.255.255", 0))
                         .at(43, endpoint("255.255.255.255", 7003));
    EXPECT_EQ(text(service(own).imageCtrl), "10.1.2.3:7002");
    EXPECT_EQ(text(service(own).arpaCtrl), "10.1.2.3:0");
    EXPECT_EQ(text(service(own).imageState), "255.255.255.255:7003") << "of control endpoints only";
}

TEST(Announcement, TcpServiceIsAnsweredWhereTheDisplayUsesIt) {
    const auto offer = AnnouncementBytes(222, "R").at(22, 1).at(30, 1);
    const struct {
        AnnouncementBytes datagram;
        DisplayOptions options;
        std::vector<std::string> listed;
        std::optional<wire::Code> answer;
    } cases[] = {
        {offer, {}, {"R"}, {}},
        {offer, kTcpService, {"R", "R:TCP"}, wire::kTcpWanted},
        {AnnouncementBytes(222, "R").at(22, 1), kTcpService, {"R"}, wire::kTcpUnwanted},
        {AnnouncementBytes(offer).at(30, 2), kTcpService, {"R"}, {}},
        {AnnouncementBytes(offer).at(22, 2).at(73, 1), kTcpService, {"R"}, {}},
        {AnnouncementBytes(150, "R").at(22, 1).at(30, 1), kTcpService, {"R"}, {}},
        // of a fixed radar only names with TCP are listed
        {offer, {true, true}, {"R:TCP"}, wire::kTcpWanted},
        {AnnouncementBytes(222, "R").at(22, 1).at(73, 1), {true, true}, {}, wire::kTcpUnwanted},
        {AnnouncementBytes(150, "TCP mast"), {true, false}, {"TCP mast"}, {}},
    };
    for (const auto& [datagram, options, listed, answer] : cases) {
        SCOPED_TRACE(&datagram - &cases[0].datagram);
        EXPECT_EQ(names(read(datagram, options)), listed);
        EXPECT_EQ(read(datagram, options).answer, answer);
    }
}

TEST(Announcement, OtherCodesAndLengthsAreNoAnnouncement) {
    for (std::size_t length = 0; length < 1024; ++length) {
        const std::string datagram = ("\x01\xB2" + std::string(length, 'x')).substr(0, length);
        const bool right = length == 150 || length == 222;
        EXPECT_EQ(protocol::readAnnouncement(datagram, {}).has_value(), right) << length;
        EXPECT_EQ(protocol::isAnnouncement(datagram), right) << length;
        EXPECT_EQ(protocol::isLongAnnouncement(datagram), length == 222) << length;
        EXPECT_EQ(protocol::isSignOfRadar(std::string(length, 'x')), right) << "of any content";
    }
    for (const char* code : {"\x01\xB1", "\x02\xB2", "\x01\xC2", "\xB2\x01"})
        for (const std::size_t length : {148U, 220U})
            EXPECT_FALSE(protocol::readAnnouncement(code + std::string(length, 'x'), kTcpService));
    EXPECT_TRUE(protocol::isSignOfRadar("aabbccdd")) << "a beacon's marker";
    EXPECT_FALSE(protocol::isSignOfRadar("aabbccde"));
    EXPECT_FALSE(protocol::isSignOfRadar({"aabbccdd\0", 9}));
}

} // namespace
