#include "announcement_bytes.h"
#include "profile_directory.h"
#include "recorder.h"

#include <UdpSocket/discovery/multi_radar_client.h>
#include <UdpSocket/discovery/record_text.h>
#include <UdpSocket/protocol/address_plan.h>

namespace {

/// A client in a network without addresses: it has no sockets and hears what the test hands it.
class RadarClient : public testing::Test {
protected:
    void receive(const std::string& datagram) {
        m_client.OnUdpGroupDataReceived("10.1.2.3", 6878, "236.6.7.5", 6878, datagram.data(),
                                        static_cast<int>(datagram.size()));
    }

    const ProfileDirectory m_profile;
    MultiRadarClientPrivate m_client;
};

TEST_F(RadarClient, NamesAreCopiedInOrderUpToTheMaximum) {
    for (const char* name : {"C", "ABCDEFGHIJKLMNOP", ""})
        receive(AnnouncementBytes(222, name).at(22, 1).at(73, 1));
    const std::vector<std::string> names{":User", "ABCDEFGHIJKLMNOP:User", "C:User"};
    EXPECT_EQ(m_client.getRadar(), names);
    char copied[4][24]{};
    EXPECT_EQ(m_client.getRadar(copied, -1), 0);
    EXPECT_EQ(m_client.getRadar(copied, 2), 2);
    EXPECT_STREQ(copied[2], "");
    EXPECT_EQ(m_client.getRadar(copied, 9), 3);
    EXPECT_EQ(std::vector<std::string>(copied, copied + 3), names);
}

TEST_F(RadarClient, OddArpaPortOfALongAnnouncementIsPrinted) {
    EXPECT_EQ(outOf([&] {
                  receive(AnnouncementBytes(222, "R"));
                  receive(AnnouncementBytes(222, "R").at(160, endpoint("236.6.7.41", 6010)));
                  receive(AnnouncementBytes(222, "R").at(160, {0, 0}));
                  receive(AnnouncementBytes(150, "R").at(124, {0, 0}));
              }),
              "streamPort2MultiNum: port not match[6010]\n"
              "streamPort2MultiNum: port not match[0]\nstreamPort2MultiNum:id out of range[0x54]\n");
}

TEST_F(RadarClient, TcpServiceSettingIsReadWithEveryLongAnnouncement) {
    const auto offer = AnnouncementBytes(222, "R1").at(22, 1).at(30, 1);
    receive(offer);
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1"));
    m_profile.write("[Radar]\nTCPService = yes\n");
    receive(offer);
    EXPECT_THAT(m_client.getRadar(), ElementsAre("R1", "R1:TCP"));
}

TEST_F(RadarClient, LookUpsCheckNameAndStream) {
    receive(AnnouncementBytes(150, "R1"));
    const RadarAddress* first = m_client.getAddress("R1", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(m_client.getAddress("R1", 1), first + 1) << "behind the last record, not to be read";
    for (const int stream : {2, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()})
        EXPECT_EQ(m_client.getAddress("R1", stream), nullptr) << stream;
    EXPECT_EQ(m_client.getAddress("R2", 0), nullptr);
    for (const char* unknown : {"R2", "Default"})
        EXPECT_EQ(m_client.getRadarStreamCount(unknown), 0);

    for (const auto& [name, stream] : {std::pair{"Default", 0}, {"DefaultX", 5}, {"R2", 101}}) {
        const RadarAddress* record = nullptr;
        EXPECT_EQ(outOf([&, n = name, s = stream] { record = m_client.getAddress(n, s); }),
                  "defalut radar address\n");
        EXPECT_EQ(bytes(*record), bytes(plan::defaultRecord()));
    }
    EXPECT_EQ(outOf([&] {
                  for (const char* name : {"R1", "Nobody", "Default"})
                      m_client.queryForAdjust(name);
              }),
              "query for reset id=0x10\n"
              "queryForAdjust: donot find radar[Nobody]\n"
              "defalut radar address\nquery for reset id=0x1\n");
}

TEST_F(RadarClient, DiagnosticsPrintARecordWhenItDiffersFromTheLast) {
    receive(AnnouncementBytes(150, "R1"));
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
    const std::string printed = outOf([&] { printRadarAddrs(dedicated); });
    EXPECT_THAT(printed, HasSubstr("MultiAddress(true):12 0x1EE7\r\n"
                                   "ImageStream: 234.5.8.89:35161 TCP Client\r\n"));
    EXPECT_THAT(printed, HasSubstr("ImageCtrl:   234.5.8.90:35162 null\r\n"));
}

TEST(MultiRadarClientHandle, TakesTheAddressOfTheProfileThoughNoRadarIsHeardThere) {
    const ProfileDirectory profile("[Local]\nIP = 127.0.0.9\n");
    MultiRadarClient client;
    Addresses addresses;
    client.addListener(&addresses);
    ASSERT_TRUE(addresses.reaches(1));
    EXPECT_THAT(addresses.all(), ElementsAre("127.0.0.9"));
}

TEST(MultiRadarClientHandle, ListenersGetEveryNewLocalAddressAndSettingOneEndsTheSearch) {
    MultiRadarClient client;
    Addresses early;
    client.addListener(&early);
    client.setLocalIP(net::transAddr("no address")); // which does not end the search
    client.setLocalIP(net::transAddr("127.0.0.1"));
    ASSERT_TRUE(early.reaches(1, std::chrono::milliseconds(4500)));

    Addresses late;
    client.addListener(&late);
    client.addListener(&late); // told again, but listed once
    client.removeListener(&early);
    for (const char* address : {"127.0.0.2", "127.0.0.2", "127.0.0.3"}) { // the second time it is no news
        client.setLocalIP(net::transAddr(address));
        ASSERT_TRUE(comesTrue([&] { return late.all().back() == address; }));
    }
    EXPECT_THAT(late.all(), ElementsAre("127.0.0.1", "127.0.0.1", "127.0.0.2", "127.0.0.3"));
    EXPECT_THAT(early.all(), ElementsAre("127.0.0.1"));
}

} // namespace
