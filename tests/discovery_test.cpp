#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "tcp_support.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/announcement.h>

#include <lab/lan.h>

namespace {

// How a search goes on, the simulation shows, and that answers lead it, too, discovery_failures_test.cpp.
TEST(Search, SettlesOnTheAddressThatReceivesBeaconsAndReportsItOnce) {
    net::detail::Timing timing;
    timing.search = {500ms, 200ms, 2000ms, 300ms};
    net::detail::setTiming(timing);
    const ProfileDirectory profile("[Local]\nNetName = no such interface\n");
    lab::Lan lan({lab::radarHost(1), lab::display(2, 1)});
    const lab::Process beacons = lan.node("host1").start(
        {.command = {"sh", "-c",
                     "while printf aabbccdd; do sleep 0.2; done | socat -u - UDP-DATAGRAM:236.6.7.20:6720"}});
    Addresses addresses;
    const auto client = makeIn<MultiRadarClient>(lan.node("display"));
    client->addListener(&addresses);
    client->setLocalIP(net::transAddr("no address")); // which does not end the search
    EXPECT_TRUE(addresses.reaches(1, 35s));
    EXPECT_THAT(addresses.all(), ElementsAre("10.20.2.1"));
}

using HostServerTest = OneInterface;

TEST_F(HostServerTest, AnswersTheExactQueryOnlyAndOnce) {
    net::detail::Timing timing;
    timing.receiverRepair = 50ms;
    net::detail::setTiming(timing);
    const ProfileDirectory profile("[Local]\nMulticastLoop = true\n");
    RadarAddress images{};
    images.imageStream = {net::transAddr("239.1.1.1"), net::HtoNs(111), 0};
    const HostServer planned("Planned", 17, 2U);
    const HostServer own("Own", 18, images);
    Recorder received;
    const net::UdpReceiver tap(&received, net::transAddr("10.1.0.1"), "236.6.7.5", 6878, 1024);
    const net::UdpSender sender("236.6.7.5", 6878, net::transAddr("10.1.0.1"), 0);
    for (const std::string message : {"\x01", "\x01\xB1x", "\x01\xB2", "\x02\xB1", "\x01\xB1"})
        sender.sendData(message.data(), static_cast<int>(message.size()));
    std::multiset<std::string> answers;
    while (const auto datagram = received.next(answers.size() < 2 ? 10s : 200ms))
        if (datagram->bytes.size() > 3)
            answers.insert(datagram->bytes);
    EXPECT_THAT(answers, testing::UnorderedElementsAre(protocol::composeAnnouncement("Planned", 17, 2),
                                                       protocol::composeAnnouncement("Own", 18, images)));

    ASSERT_EQ(std::system("ip link add eth1 type veth peer name far1 && ip addr add 10.2.0.1/24 dev eth1 && "
                          "ip link set eth1 up && ip route replace 236.6.7.5 dev eth1"),
              0);
    EXPECT_TRUE(comesTrue([] { return std::system("ip maddr show dev eth1 | grep -q 236.6.7.5") == 0; }))
        << "its answers leave by that interface from now on";
    std::system("ip link del eth1");
}

using FixedRadar = OneInterface;

TEST_F(FixedRadar, IsQueriedAndListedOverTcp) {
    net::detail::Timing timing;
    timing.clientTick = 50ms;
    net::detail::setTiming(timing);
    const ProfileDirectory profile("[Local]\nNetName = eth0\n[Radar]\nIP = 10.1.0.1\nTCPService = true\n");
    const Output output;
    tcp_test::Notes radar;
    net::TcpServer server(&radar);
    ASSERT_TRUE(server.connect(wire::kDiscovery.port, 1));
    const auto received = [&](const wire::Code& code) {
        return comesTrue([&] { return radar.bytes().find(wire::text(code)) != std::string::npos; }, 500ms);
    };
    MultiRadarClient client;
    ASSERT_TRUE(comesTrue([&] {
        client.query();
        return received(wire::kQuery);
    }));
    std::string announcement = protocol::composeAnnouncement("ZQ-7", 20, 2);
    announcement[wire::kExtended.offset] = announcement[wire::kTcpOffered.offset] = 1;
    server.sendData(announcement.data(), 222);
    EXPECT_TRUE(comesTrue([&] { return received(wire::kTcpWanted); }));
    EXPECT_EQ(client.getRadar(), std::vector<std::string>{"ZQ-7:TCP"});
    EXPECT_THAT(output.out(), testing::HasSubstr("LocalIP (eth0): 0.0.0.0\n"));
}

TEST(HostServerDeathTest, WrongConfigurationEndsTheProcess) {
    for (const std::uint8_t id : std::initializer_list<std::uint8_t>{2, 15, 64}) {
        EXPECT_EXIT((::dup2(2, 1), std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ), HostServer("R", id, 1U)),
                    testing::KilledBySignal(SIGABRT),
                    "Error with Host id:" + std::to_string(id) +
                        "\n.*UdpSocket/hostserver.cpp.*Assertion `false' failed");
        EXPECT_DEATH((::dup2(2, 1), HostServer("R", id, RadarAddress{})),
                     "Error with Info Host id:" + std::to_string(id) + "\n");
    }
    for (const unsigned streams : {0U, 3U})
        EXPECT_DEATH(HostServer("R", 16, streams),
                     "Assertion `\\(streamCount ==1\\) \\|\\| \\(streamCount ==2\\)' failed");
    const std::string tooLong(149, 'x');
    EXPECT_DEATH(HostServer(tooLong.c_str(), 16, 1U), "Assertion");
    EXPECT_DEATH(HostServer(tooLong.c_str(), 16, RadarAddress{}), "Assertion");
}

} // namespace
