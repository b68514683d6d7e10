// The classes of discovery, host and network management, while each of their system calls and allocations
// fails in turn.
#include "failures_fixture.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/protocol/wire.h>

namespace {

void hostServer() {
    Source display(wire::kDiscovery);
    const GroupListener listener(wire::kDiscovery);
    const auto answer = static_cast<ssize_t>(northsAnnouncement().size());
    const HostServer host("North", 20, 2);
    EXPECT_TRUE(inTheEnd([&] {
        return soon([&] {
                   display.send(wire::text(wire::kQuery));
                   pace();
                   return listener.hears(answer);
               }) ||
               isSaid("function[thread]") || isSaid("IP_MULTICAST_LOOP") || isSaid("cannot be read");
    }));
}

constexpr std::uint8_t kOwnId = 20;

void hostNegotiator() {
    std::atomic<int> logins = 0;
    std::atomic<int> resets = 0;
    Source other(wire::kNegotiation);
    HostNegotiator negotiator([&] { takeMemory(), ++resets; }, [&](std::uint8_t) { takeMemory(), ++logins; });
    try {
        negotiator.asyncLogin(kOwnId);
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "thrown: %s\n", error.code().message().c_str());
        EXPECT_TRUE(negotiator.asyncLogin(kOwnId)) << "as if it had not been called";
    }
    EXPECT_TRUE(inTheEnd([&] { return logins > 0 || isSaid("a callback was lost"); }));
    soon([&] {
        other.send(wire::text(wire::Negotiation{wire::kObjection, kOwnId}));
        pace();
        return logins > 1;
    });
    soon([&] { return other.send(wire::text(wire::kReset)), pace(), resets > 0; });
}

void hostNegotiatorOnOwnThread() {
    HostNegotiator negotiator(nullptr, [](std::uint8_t) {});
    EXPECT_NE(negotiator.syncLogin(kOwnId), 0);
}

class Locals final : public iMultiRadarCheckerListener {
    void OnLocalIpChanged(unsigned int) override {}
};

void multiRadarClient() {
    Source radar(wire::kDiscovery);
    const std::string announcement = northsAnnouncement();
    Locals locals;
    MultiRadarClient client;
    client.addListener(&locals);
    const auto lists = [&] {
        radar.send(announcement);
        pace();
        client.query();
        char names[4][24];
        return client.getRadar(names, 4) > 0;
    };
    EXPECT_TRUE(inTheEnd(lists));
    client.setLocalIP(Source::local());
    EXPECT_TRUE(inTheEnd([&] { return lists() && client.getRadarStreamCount("North") > 0; }));
    client.getAddress("North", 0);
    client.queryForAdjust("North");
    client.resetRadar();
    client.removeListener(&locals);
}

void multiRadarClientOfAFixedRadar() {
    FixedRadar radar;
    MultiRadarClient client;
    EXPECT_TRUE(inTheEnd([&] {
        radar.answer();
        pace();
        client.query();
        return client.getRadarStreamCount("ZQ-7:TCP") > 0 || isSaid("defaults are used");
    }));
}

/// Of an interface of which there is nothing else.
void setCarrier(const std::string& interface, bool up) {
    const Sound sound;
    const std::filesystem::path directory = "/sys/class/net/" + interface;
    std::filesystem::create_directory(directory);
    std::ofstream(directory / "carrier") << up << '\n';
}

class LastAddress final : public net::iNetIPListener {
public:
    std::atomic<bool> none = true;

private:
    void OnNetIPChanged(const std::string&, const std::string& ip, bool) override { none = ip == "0.0.0.0"; }
};

void netIpHelper() {
    const std::string interface = "eth" + std::to_string(::getpid());
    LastAddress last;
    net::tNetIPHelper helper(false, interface, "10.5.0.9", "255.255.255.0");
    helper.AddNetIPListener(&last);
    setCarrier(interface, true);
    EXPECT_TRUE(inTheEnd([&] { return !last.none; }));
    net::tNetIPHelper::NetworkRestart();
    EXPECT_TRUE(inTheEnd([&] { return !last.none; }));
    setCarrier(interface, false);
    EXPECT_TRUE(inTheEnd([&] { return last.none.load(); }));
    EXPECT_EQ(helper.GetNetIP(), "0.0.0.0");
    helper.RemoveNetIPListener(&last);
}

// Quiet are a look at the interfaces, which a receiver repeats; and what the watch of one meets again in its
// next pass.
const std::vector<std::string_view> kLooks = {"connect", "getifaddrs", "recv"};
const std::vector<std::string_view> kAttempts = {"getifaddrs", "connect", "fcntl",
                                                 "poll",       "recv",    "send"}; // of a TCP client
const Scenario kScenarios[] = {
    {"HostServer", &hostServer, kLooks},
    {"HostNegotiator", &hostNegotiator, kLooks},
    {"HostNegotiatorOnOwnThread", &hostNegotiatorOnOwnThread, kLooks},
    {"MultiRadarClient", &multiRadarClient, kLooks},
    {"MultiRadarClientOfAFixedRadar", &multiRadarClientOfAFixedRadar, kAttempts},
    {"TNetIPHelper", &netIpHelper, {"open", "read", "system"}},
};

INSTANTIATE_TEST_SUITE_P(Discovery, EachCall, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(Discovery, EachAllocation, testing::ValuesIn(kScenarios), nameOf);

} // namespace
