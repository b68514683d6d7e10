/// @file
/// What the tests of network management share: a listener that remembers, commands that must succeed,
/// stand-ins that record their arguments instead of changing the network.
#pragma once

#include <UdpSocket/netiphelper.h>

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

constexpr auto kDeadline = 30s;

/// Remembers every event as "eth0 10.0.0.1" or, for an address from DHCP, "eth0 10.0.0.1 dhcp".
class RecordingListener : public net::iNetIPListener {
public:
    void OnNetIPChanged(const std::string& ifname, const std::string& ip, bool dhcpAddress) override {
        std::lock_guard lock(m_mutex);
        m_events.push_back(ifname + " " + ip + (dhcpAddress ? " dhcp" : ""));
        m_changed.notify_all();
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_events.clear();
    }
    /// Waits until @p event is the last one. @return the last event
    std::string waitFor(const std::string& event) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, kDeadline, [&] { return !m_events.empty() && m_events.back() == event; });
        return m_events.empty() ? "" : m_events.back();
    }

private:
    mutable std::mutex m_mutex; // guards m_events
    std::condition_variable m_changed;
    std::vector<std::string> m_events;
};

template <class Condition>
bool waitUntil(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

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
        ASSERT_TRUE(succeeds("mkdir /run/test && touch /run/test/resolv.conf && "
                             "mount --bind /run/test/resolv.conf /etc/resolv.conf"));
        ASSERT_TRUE(succeeds("ip netns add far && ip link add eth0 type veth peer name far0 netns far && "
                             "ip link set eth0 up && ip -n far addr add 10.5.0.1/24 dev far0"));
    }

    /// What was printed since CaptureStdout; a failure noted meanwhile is shown after all.
    static std::string captured() {
        const std::string text = testing::internal::GetCapturedStdout();
        if (HasFailure())
            std::fputs(text.c_str(), stderr);
        return text;
    }

    static bool plugCable() { return succeeds("ip -n far link set far0 up"); }
    static bool pullCable() { return succeeds("ip -n far link set far0 down"); }

    /// Puts commands first in PATH that only record "name|argument|argument".
    static void standIn(const std::vector<std::string>& names) {
        std::filesystem::create_directory("/run/test/bin");
        for (const std::string& name : names) {
            const std::string path = "/run/test/bin/" + name;
            std::ofstream(path) << "#!/bin/sh\n{ printf %s " << name
                                << "; printf '|%s' \"$@\"; echo; } >> /run/test/commands\n";
            std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        }
        ::setenv("PATH", ("/run/test/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
    }
    static std::string recordedCommands() {
        std::ostringstream text;
        text << std::ifstream("/run/test/commands").rdbuf();
        return text.str();
    }
};
