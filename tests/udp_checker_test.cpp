#include "recorder.h"

#include <UdpSocket/base/timing.h>

#include <lab/process.h>

#include <gmock/gmock.h>

#include <cstdlib>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr const char* kGroup = "236.6.7.30";
constexpr unsigned short kPort = 6730;

/// Two cables, "a" with 10.1.0.1 and "b" with 10.2.0.1 at this end; each far end is a network of its own.
class UdpCheckerOnTwoInterfaces : public testing::Test {
protected:
    UdpCheckerOnTwoInterfaces() {
        net::detail::Timing timing;
        timing.checkerProbe = 500ms;
        timing.checkerPause = 100ms;
        net::detail::setTiming(timing);
    }
    void SetUp() override {
        ASSERT_EQ(std::system(R"(set -e
            cable() {
                ip netns add $1
                ip link add eth$1 type veth peer name far netns $1
                ip addr add $2.1/24 dev eth$1; ip link set eth$1 up
                ip -n $1 addr add $2.2/24 dev far; ip -n $1 link set far up
                ip -n $1 route add default dev far
            }
            cable a 10.1.0
            cable b 10.2.0)"),
                  0);
    }
    /// Sends a text again and again from the far end of a cable.
    static lab::Process beacon(const std::string& cable, const std::string& text) {
        return lab::Process({.command = {"ip", "netns", "exec", cable, "sh", "-c",
                                         "while sleep 0.05; do printf '" + text +
                                             "'; done | socat -u - UDP-DATAGRAM:236.6.7.30:6730"}});
    }
};

TEST_F(UdpCheckerOnTwoInterfaces, ReportsEachAddressThatReceivesTheTextAndNoOtherToEachListener) {
    Addresses twice;
    Addresses late;
    Addresses removed;
    Addresses ofOther;
    const lab::Process other = beacon("b", "sonar");
    const lab::Process longer = beacon("b", "radar\\0x");
    net::UdpChecker witness(kGroup, kPort, "sonar");
    witness.addListener(&ofOther);
    lab::Process first = beacon("a", "radar\\000"); // its zero byte may come, too
    net::UdpChecker checker(kGroup, kPort, "radar");
    for (Addresses* listener : {&twice, &twice, &removed, &removed})
        checker.addListener(listener);
    checker.removeListener(&removed);
    ASSERT_TRUE(twice.reaches(2) && ofOther.reaches(1));
    checker.addListener(&late);
    EXPECT_THAT(late.all(), ElementsAre("10.1.0.1")) << "reported at once";

    first.stop();
    const lab::Process second = beacon("b", "rad"); // the beginning of the text is enough
    ASSERT_TRUE(late.reaches(2));
    EXPECT_THAT(late.all(), ElementsAre("10.1.0.1", "10.2.0.1"));
    EXPECT_THAT(twice.all(), ElementsAre("10.1.0.1", "10.1.0.1", "10.2.0.1", "10.2.0.1"));
    EXPECT_THAT(removed.all(), ElementsAre());
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
