/// @file
/// What the tests of network management share: a listener that records events, commands that must succeed,
/// stubs of commands that record their arguments instead of changing the network.
#pragma once

#include "recorder.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/netiphelper.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace std::chrono_literals;
using net::tNetIPHelper;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Records every event as "eth0 10.0.0.1" or, for an address from DHCP, "eth0 10.0.0.1 dhcp".
class NetIpLog : public net::iNetIPListener, public Log<std::string> {
public:
    /// Whether @p event becomes the last one.
    bool lastBecomes(const std::string& event) const {
        return comesTrue([&] { return reaches(1) && all().back() == event; }, 30s);
    }

private:
    void OnNetIPChanged(const std::string& ifname, const std::string& ip, bool dhcpAddress) override {
        add(ifname + " " + ip + (dhcpAddress ? " dhcp" : ""));
    }
};

inline bool succeeds(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

inline std::string outputOf(const std::string& command) {
    std::string text;
    FILE* const output = ::popen(command.c_str(), "r");
    for (char piece[256]; std::fgets(piece, sizeof piece, output) != nullptr;)
        text += piece;
    ::pclose(output);
    return text;
}

inline void setWatchPass(std::chrono::milliseconds pass) {
    auto timing = net::detail::timing();
    timing.watchPass = pass;
    net::detail::setTiming(timing);
}

/// Puts a script first in PATH, in place of each command that the library runs.
inline void replaceCommands(const std::string& script) {
    std::filesystem::create_directories("/run/test/bin");
    std::ofstream("/run/test/bin/ifconfig") << "#!/bin/sh\n" << script << "\n";
    ASSERT_TRUE(succeeds("cd /run/test/bin && chmod +x ifconfig && "
                         "for name in nmcli service udhcpc; do ln -sf ifconfig $name; done"));
    ::setenv("PATH", ("/run/test/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
}

/// A veth pair "eth0" and "far0", the latter in the namespace "far" with 10.5.0.1; a directory of the test's
/// own on /run, which is private; and nobody's resolver configuration but the test's.
class NetworkManagement : public testing::Test {
protected:
    void SetUp() override {
        setWatchPass(200ms); // instead of a second
        ASSERT_TRUE(succeeds(R"(set -e
            mkdir -p /run/test
            touch /run/test/resolv.conf /run/test/commands
            mount --bind /run/test/resolv.conf /etc/resolv.conf
            ip netns add far
            ip link add eth0 type veth peer name far0 netns far
            ip link set eth0 up
            ip -n far addr add 10.5.0.1/24 dev far0)"));
    }
    static bool plugCable() { return succeeds("ip -n far link set far0 up"); }
    static bool pullCable() { return succeeds("ip -n far link set far0 down"); }

    /// Commands only record "name|argument|argument".
    static void installStubs() {
        replaceCommands(R"({ printf %s "${0##*/}"; printf '|%s' "$@"; echo; } >> /run/test/commands)");
    }
    static std::string recordedCommands() { return outputOf("cat /run/test/commands"); }
};
