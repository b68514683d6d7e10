// What stands around a display and a host: beacons of other equipment, a sudo that hangs, a terminal that is
// stopped, a link that is slow.

#include "testbed.h"

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/scope_exit.h>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace soak {

namespace {

using net::detail::Descriptor;

/// Beacons arrive at the display's other interface, which leads to no radar.
Figures beaconsElsewhere(Testbed& testbed) {
    constexpr const char* kOther = "192.168.1.2";
    runInLan(std::string("ip address replace ") + kOther + "/24 dev display-eth1");
    const Client configured(testbed.display(), kDisplayAddress);
    const Client searching(testbed.display(), "0.0.0.0");
    secondsUntil(
        {[&] { return configured.lists(kPermanentRadar); }, [&] { return searching.lists(kPermanentRadar); }},
        30s, "both list the radar");
    std::jthread beacons([&](const std::stop_token& stop) {
        const net::UdpSender sender(wire::kBeacon.address, wire::kBeacon.port, net::transAddr(kOther), 0);
        for (; !stop.stop_requested(); std::this_thread::sleep_for(200ms))
            sender.sendData(wire::kBeaconMarker.data(), wire::kBeaconMarker.size());
    });
    secondsUntil([&] { return !searching.lists(kPermanentRadar); }, 60s,
                 "the display that searches is moved");
    int missing = 0;
    for (const auto end = Clock::now() + 3s; Clock::now() < end; std::this_thread::sleep_for(50ms))
        missing += configured.lists(kPermanentRadar) ? 0 : 1;
    beacons.request_stop();
    beacons.join();
    return {{"times the configured one missed the radar", static_cast<double>(missing), 0},
            {"s without beacons until the searching one lists it",
             secondsUntil([&] { return searching.lists(kPermanentRadar); }, 60s, "it lists the radar again"),
             18}};
}

/// A display that searches, while every sudo waits for a password that nobody types.
Figures sudoHangs(Testbed& testbed) {
    const std::filesystem::path directory = "/run/hanging-sudo";
    std::filesystem::create_directory(directory);
    std::ofstream(directory / "sudo") << "#!/bin/sh\nexec sleep 600\n";
    std::filesystem::permissions(directory / "sudo", std::filesystem::perms::owner_all);
    const char* known = std::getenv("PATH");
    const std::string path = known == nullptr ? "/usr/sbin:/usr/bin" : known;
    const net::detail::ScopeExit asBefore([&] { ::setenv("PATH", path.c_str(), 1); });
    ::setenv("PATH", (directory.string() + ":" + path).c_str(), 1);
    const auto start = Clock::now();
    const Client client(testbed.display(), "0.0.0.0"); // in this process: radarctl runs no sudo
    secondsUntil([&] { return client.lists(kPermanentRadar); }, 90s, "the display lists the radar");
    return {{"s until listed", secondsSince(start), 28}};
}

/// A terminal that nobody sits at.
class Terminal {
public:
    Terminal() : m_master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
        char name[64];
        if (!m_master.isOpen() || ::grantpt(m_master.get()) != 0 || ::unlockpt(m_master.get()) != 0 ||
            ::ptsname_r(m_master.get(), name, sizeof name) != 0)
            throw RequirementFailed("there is no terminal");
        m_name = name;
        m_slave = Descriptor(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    }
    const std::string& name() const { return m_name; }
    void stop() const { ::tcflow(m_slave.get(), TCOOFF); } // as Ctrl-S does
    void goOn() const { ::tcflow(m_slave.get(), TCOON); }
    /// Whether what was shown since the last time that it was true contains @p text.
    bool shows(const std::string& text) {
        char piece[4096];
        for (ssize_t count; (count = ::read(m_master.get(), piece, sizeof piece)) > 0;)
            m_shown.append(piece, static_cast<std::size_t>(count));
        const bool found = m_shown.find(text) != std::string::npos;
        if (found)
            m_shown.clear();
        return found;
    }

private:
    Descriptor m_master;
    std::string m_name;
    Descriptor m_slave; // keeps it alive
    std::string m_shown;
};

/// A host that has something to print, on a terminal that is stopped.
Figures outputStopped(Testbed& testbed) {
    Terminal terminal;
    const std::string name = testbed.newName();
    const lab::Process host = testbed.host().start(
        {.command = {lab::programBeside("radarctl"), "host", "--name", name, "--id", "21"},
         .outputFile = terminal.name()}); // and what it complains about
    secondsUntil([&] { return terminal.shows("serving"); }, 30s, "the host serves");
    const Client client(testbed.display(), kDisplayAddress);
    secondsUntil([&] { return client.lists(name); }, 30s, "the host is listed");
    terminal.stop();
    int missing = 0;
    for (const auto end = Clock::now() + 20s; Clock::now() < end; std::this_thread::sleep_for(100ms)) {
        client.client().resetRadar(); // the host has a line for each
        missing += client.lists(name) ? 0 : 1;
    }
    if (terminal.shows("reset"))
        throw RequirementFailed("the terminal was not stopped");
    terminal.goOn();
    return {{"times the host was missing", static_cast<double>(missing), 0},
            {"s until it prints again",
             secondsUntil([&] { return terminal.shows("reset"); }, 30s, "it prints again"), 2}};
}

/// A radio link to the display: everything that goes there shares 4 Mbit/s with a picture of 1.9.
Figures slowLink(Testbed& testbed) {
    constexpr int kRadars = 48;
    std::vector<std::string> names;
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int i = 0; i < kRadars; ++i) {
        names.push_back(testbed.newName());
        servers.push_back(testbed.serve(testbed.host(), names.back(), 16 + i));
    }
    runInLan("tc qdisc add dev display-eth0 root tbf rate 4mbit burst 8kb latency 50ms");
    const net::detail::ScopeExit widen([] { runInLan("tc qdisc del dev display-eth0 root"); });
    const Client client(testbed.display(), kDisplayAddress);
    const auto missing = [&] {
        return std::ranges::count_if(names, [&](const std::string& name) { return !client.lists(name); });
    };
    const double listed = secondsUntil([&] { return missing() == 0; }, 30s, "all are listed");
    lab::Process picture = testbed.display().start(
        {.command = {lab::programBeside("radarctl"), "listen", kPermanentRadar, "0", "--json", "--sequence",
                     "4", "--seconds", testbed.full() ? "600" : "20", "--local", kDisplayAddress},
         .errorFile = "/run/soak.errors"});
    std::ptrdiff_t times = 0;
    while (!picture.wait(100ms))
        times += missing();
    nlohmann::json total; // its last line
    while (const auto line = picture.nextLine(0ms))
        total = nlohmann::json::parse(*line);
    const double lost = total.at("missing");
    return {{"s until all 48 listed", listed, 4.5},
            {"times one was missing", static_cast<double>(times), 0},
            {"% of the picture lost", 100 * lost / (lost + total.at("datagrams").get<double>()), 1}};
}

constexpr Fault kFaults[] = {
    {"beacons-elsewhere", "Beacons on another interface",
     "sent to the display's other interface, until a display that searches is moved there",
     "a configured display stays; the other one lists the radars again 18 s after the last beacon",
     beaconsElsewhere},
    {"sudo-hangs", "A sudo that hangs", "first in a searching display's PATH",
     "listed within 28 s: 13, and five for each of three receivers", sudoHangs},
    {"output-stopped", "Terminal stopped (Ctrl-S)", "for 20 s, while the host has lines to print on it",
     "the host stays listed, and prints within 2 s when the terminal goes on", outputStopped},
    {"link-slow", "Slow link to the display",
     "shaped to 4 Mbit/s for 20 s (10 min with --full), a picture of 1.9 Mbit/s and 48 radars",
     "all are listed within 4.5 s, none is missing, and hardly any of the picture", slowLink},
};

} // namespace

std::span<const Fault> surroundingFaults() {
    return kFaults;
}

} // namespace soak
