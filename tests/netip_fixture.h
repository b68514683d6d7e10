/// @file
/// What the tests of network management share: a listener that records events, commands that must succeed,
/// and a network without interfaces or commands of the system's.
#pragma once

#include "commands.h"
#include "recorder.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/netiphelper.h>

using net::tNetIPHelper;

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

inline void setWatchTimes(std::chrono::milliseconds pass, std::chrono::milliseconds restartCarrier) {
    auto timing = net::detail::timing();
    timing.watchPass = pass;
    timing.restartCarrier = restartCarrier;
    net::detail::setTiming(timing);
}

/// Interfaces of which there is nothing but a carrier file, and commands that only record
/// "name|argument|argument".
class NetworkManagement : public testing::Test {
protected:
    void SetUp() override {
        setWatchTimes(200ms, 2ms); // listeners are added before the first pass
        ASSERT_TRUE(succeeds("mount -t tmpfs none /sys/class/net"));
        replaceCommands(R"({ printf %s "${0##*/}"; printf '|%s' "$@"; echo; } >> "${0%/*}/recorded")");
    }
    void replaceCommands(const std::string& script) const {
        for (const char* name : {"ifconfig", "nmcli", "service", "udhcpc"})
            m_commands.add(name, script);
    }
    static bool isPrinted(const Output& output, const std::string& text) {
        return comesTrue([&] { return (output.out() + output.err()).find(text) != std::string::npos; });
    }
    std::string recordedCommands() const { return m_commands.read("recorded"); }
    void forgetCommands() const { m_commands.write("", "recorded"); }
    static void setCarrier(const std::string& interface, const std::string& lines) {
        const std::filesystem::path directory = "/sys/class/net/" + interface;
        std::filesystem::create_directory(directory);
        std::ofstream(directory / "carrier") << lines << '\n';
    }

private:
    const Commands m_commands;
};
