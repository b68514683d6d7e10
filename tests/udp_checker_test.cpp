#include "interrupt.h"
#include "recorder.h"

#include <UdpSocket/base/timing.h>

namespace {

constexpr const char* kGroup = "236.6.7.30";
constexpr unsigned short kPort = 6730;

/// Interfaces with 10.1.0.1 and 10.2.0.1.
class UdpCheckerOnTwoInterfaces : public testing::Test {
protected:
    UdpCheckerOnTwoInterfaces() {
        net::detail::Timing timing;
        timing.checkerProbe = 100ms;
        timing.checkerPause = 20ms;
        net::detail::setTiming(timing);
    }
    static void SetUpTestSuite() {
        ASSERT_EQ(std::system(R"(set -e
            for i in 1 2; do
                ip link add eth$i type veth peer name far$i
                ip addr add 10.$i.0.1/24 dev eth$i
                ip link set eth$i up
                ip link set far$i up
            done)"),
                  0);
    }
    /// Sends a text again and again through the interface with that address.
    static std::jthread beacon(const char* localIp, const std::string& text) {
        return std::jthread([=](const std::stop_token& stop) {
            net::UdpSender sender(kGroup, kPort, net::transAddr(localIp), 0);
            sender.setMulticastLoop(true);
            for (; !stop.stop_requested(); std::this_thread::sleep_for(10ms))
                sender.sendData(text.data(), static_cast<int>(text.size()));
        });
    }
};

TEST_F(UdpCheckerOnTwoInterfaces, ReportsEachAddressThatReceivesTheTextAndNoOtherToEachListener) {
    Addresses twice;
    Addresses late;
    Addresses removed;
    Addresses ofOther;
    const std::jthread other = beacon("10.2.0.1", "sonar");
    const std::jthread longer = beacon("10.2.0.1", std::string("radar\0x", 7));
    net::UdpChecker witness(kGroup, kPort, "sonar");
    witness.addListener(&ofOther);
    std::jthread beacons = beacon("10.1.0.1", std::string("radar\0", 6)); // its zero byte may come, too
    net::UdpChecker checker(kGroup, kPort, "radar");
    for (Addresses* listener : {&twice, &twice, &removed, &removed})
        checker.addListener(listener);
    checker.removeListener(&removed);
    ASSERT_TRUE(twice.reaches(2) && ofOther.reaches(1));
    checker.addListener(&late);
    EXPECT_THAT(late.all(), ElementsAre("10.1.0.1")) << "reported at once";

    beacons = {};
    beacons = beacon("10.2.0.1", "rad"); // the beginning of the text is enough
    ASSERT_TRUE(late.reaches(2));
    EXPECT_THAT(late.all(), ElementsAre("10.1.0.1", "10.2.0.1"));
    EXPECT_THAT(twice.all(), ElementsAre("10.1.0.1", "10.1.0.1", "10.2.0.1", "10.2.0.1"));
    EXPECT_THAT(removed.all(), ElementsAre());
}

TEST_F(UdpCheckerOnTwoInterfaces, HearsTheTextInAProbeThatIsInterrupted) {
    net::detail::Timing timing;
    timing.checkerProbe = timing.checkerPause = 60s;
    net::detail::setTiming(timing);
    ASSERT_EQ(std::system("ip addr flush dev eth2"), 0);
    Addresses found;
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&found);
    ASSERT_TRUE(comesTrue([] { return std::system("ip maddr show dev eth1 | grep -q 236.6.7.30") == 0; }));
    interruptThreads();
    const std::jthread beacons = beacon("10.1.0.1", "radar");
    EXPECT_TRUE(found.reaches(1));
    ASSERT_EQ(std::system("ip addr add 10.2.0.1/24 dev eth2"), 0);
}

TEST_F(UdpCheckerOnTwoInterfaces, IsGoneAtOnceInAProbeAndInAPause) {
    net::detail::setTiming({});
    const Output output;
    std::optional<net::UdpChecker> pausing(std::in_place, "10.9.9.9", kPort, "radar"); // no group to join
    std::optional<net::UdpChecker> probing(std::in_place, kGroup, kPort, "radar");
    EXPECT_TRUE(comesTrue([&] {
        return output.err().find("(10.9.9.9,6730)") != std::string::npos &&
               std::system("ip maddr show | grep -q 236.6.7.30") == 0;
    }));
    EXPECT_LT(timeOf([&] { pausing.reset(); }), 4s) << "not the pause's 5 s";
    EXPECT_LT(timeOf([&] { probing.reset(); }), 1800ms) << "not the probes' 2 s";
}

} // namespace
