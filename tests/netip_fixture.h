/// @file
/// What the tests of network management share: a listener that remembers, commands that must succeed,
/// stand-ins that record their arguments instead of changing the network.
#pragma once

#include "wait.h"

#include <UdpSocket/netiphelper.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

using namespace std::chrono_literals;

/// Remembers every event as "eth0 10.0.0.1" or, for an address from DHCP, "eth0 10.0.0.1 dhcp".
class RecordingListener : public net::iNetIPListener {
public:
    void OnNetIPChanged(const std::string& ifname, const std::string& ip, bool dhcpAddress) override {
        std::lock_guard lock(m_mutex);
        m_events.push_back(ifname + " " + ip + (dhcpAddress ? " dhcp" : ""));
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_events.clear();
    }
    /// The last event, after waiting until it is @p event.
    std::string waitFor(const std::string& event) const {
        comesTrue([&] { return lastEvent() == event; }, 30s);
        return lastEvent();
    }

private:
    std::string lastEvent() const {
        const auto all = events();
        return all.empty() ? "" : all.back();
    }

    mutable std::mutex m_mutex; // guards m_events
    std::vector<std::string> m_events;
};

inline bool succeeds(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

inline std::string outputOf(const std::string& command) {
    std::string text;
    FILE* const output = ::popen(command.c_str(), "r");
    for (char piece[256]; output != nullptr && std::fgets(piece, sizeof piece, output) != nullptr;)
        text += piece;
    if (output != nullptr)
        ::pclose(output);
    return text;
}

/// A veth pair "eth0" and "far0", the latter in the namespace "far" with 10.5.0.1; a directory of the test's
/// own on /run, which is private; and nobody's resolver configuration but the test's.
class NetworkManagement : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(succeeds(R"(set -e
            mkdir -p /run/test/bin
            touch /run/test/resolv.conf /run/test/commands
            mount --bind /run/test/resolv.conf /etc/resolv.conf
            ip netns add far
            ip link add eth0 type veth peer name far0 netns far
            ip link set eth0 up
            ip -n far addr add 10.5.0.1/24 dev far0)"));
    }

    /// What was printed since CaptureStdout; a failure noted meanwhile is shown after all.
    static std::string captured() {
        std::string text = testing::internal::GetCapturedStdout();
        if (HasFailure())
            std::fputs(text.c_str(), stderr);
        return text;
    }

    static bool plugCable() { return succeeds("ip -n far link set far0 up"); }
    static bool pullCable() { return succeeds("ip -n far link set far0 down"); }

    /// Puts commands first in PATH that only record "name|argument|argument".
    static void standIn() {
        std::ofstream("/run/test/bin/ifconfig") << R"(#!/bin/sh
            { printf %s "${0##*/}"; printf '|%s' "$@"; echo; } >> /run/test/commands
            )";
        ASSERT_TRUE(succeeds("cd /run/test/bin && chmod +x ifconfig && "
                             "for name in nmcli service udhcpc; do ln -s ifconfig $name; done"));
        ::setenv("PATH", ("/run/test/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
    }
    static std::string recordedCommands() { return outputOf("cat /run/test/commands"); }
};
