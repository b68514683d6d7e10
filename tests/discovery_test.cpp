#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/announcement.h>

namespace {

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

TEST_F(OneInterface, HasTheAddressThatADisplayWhoseProfileNamesItTakes) {
    const ProfileDirectory profile("[Local]\nNetName = eth0\n");
    MultiRadarClient client;
    Addresses addresses;
    client.addListener(&addresses);
    EXPECT_TRUE(addresses.reaches(1));
    EXPECT_THAT(addresses.all(), ElementsAre("10.1.0.1"));
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
