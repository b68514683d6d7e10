/// demo: three radar hosts and a display on a virtual LAN. Each step prints what was seen; the exit status is
/// 0 only when every step succeeded.
#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>
#include <lab/lan.h>
#include <lab/private_network.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The harder order for the display: the interface that leads nowhere comes first.
constexpr const char* kUnconnectedAddress = "192.168.0.1";
constexpr const char* kConnectedAddress = "10.20.2.1";
constexpr auto kQueryPeriod = 1s;

struct HostPlan {
    const char* node;
    const char* name;
    int id; // to propose
    int streams;
};
constexpr HostPlan kHosts[] = {{"host1", "North", 1, 1}, {"host2", "East", 21, 2}, {"host3", "South", 40, 1}};

FILE* s_report = nullptr; // the real standard output; the library's diagnostics go nowhere

__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    va_list values;
    va_start(values, format);
    std::vfprintf(s_report, format, values);
    va_end(values);
    std::fflush(s_report);
}

/// One check of the demo: prints a tick, or ends the demo.
void check(bool seen, const std::string& what) {
    say("  %s %s\n", seen ? "\u2713" : "\u2717", what.c_str());
    if (!seen)
        throw std::runtime_error("the demo did not see what it promises");
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string inSeconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

/// The display: the client, asked once a second, in the display's network.
class Display : public iMultiRadarCheckerListener {
public:
    Display() { m_client.addListener(this); }
    ~Display() { m_client.removeListener(this); }
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    MultiRadarClient& client() { return m_client; }
    unsigned int localIp() const { return m_localIp; }

    /// Queries once a second until @p seen holds. @return whether it did in time
    bool queryUntil(const std::function<bool()>& seen, std::chrono::seconds timeout) {
        const auto end = Clock::now() + timeout;
        auto nextQuery = Clock::now();
        while (!seen()) {
            if (Clock::now() > end)
                return false;
            if (Clock::now() >= nextQuery) {
                m_client.query();
                nextQuery += kQueryPeriod;
            }
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }

    bool lists(const std::string& name) const { return m_client.getRadarStreamCount(name.c_str()) > 0; }
    RadarAddress record(const std::string& name) const {
        const RadarAddress* found = m_client.getAddress(name.c_str(), 0);
        return found != nullptr ? *found : RadarAddress{};
    }

private:
    void OnLocalIpChanged(unsigned int localIp) override { m_localIp = localIp; }

    std::atomic<unsigned int> m_localIp = 0;
    MultiRadarClient m_client;
};

std::string text(const NetAddress& endpoint) {
    return net::transAddr(endpoint.ip) + (":" + std::to_string(net::NtoHs(endpoint.port)));
}

bool isAsPlanned(const RadarAddress& record, int id) {
    return std::ranges::all_of(wire::kShortEndpoints, [&](const wire::EndpointPlace& place) {
        return text(record.*place.field) ==
               text(plan::announcedEndpoint(static_cast<std::uint8_t>(id), place.field, 0));
    });
}

void printRow(const std::string& name, int id, const RadarAddress& record) {
    say("    %-6s id %-3d image %-17s control %-17s state %s\n", name.c_str(), id,
        text(record.imageStream).c_str(), text(record.imageCtrl).c_str(), text(record.imageState).c_str());
    say("    %-6s        ARPA  %-17s control %-17s state %s\n", "", text(record.arpaStream).c_str(),
        text(record.arpaCtrl).c_str(), text(record.arpaState).c_str());
}

/// The radar hosts: real processes, which print the id that they serve.
class Hosts {
public:
    explicit Hosts(lab::Lan& lan) {
        const std::string radarctl = lab::programBeside("radarctl");
        for (const HostPlan& plan : kHosts)
            m_processes.emplace(plan.name, lan.node(plan.node).start(
                                               {.command = {radarctl, "host", "--name", plan.name, "--id",
                                                            std::to_string(plan.id), "--streams",
                                                            std::to_string(plan.streams)}}));
    }

    /// Waits until a host prints that it serves. @return its id
    int nextId(const std::string& name) {
        lab::Process& process = m_processes.at(name);
        const auto line = process.lineWith("serving", 30s);
        check(line.has_value(), name + " says: " + line.value_or(process.output()));
        const std::string before = "as host id ";
        m_ids[name] = std::stoi(line->substr(line->find(before) + before.size()));
        return m_ids[name];
    }

    int id(const std::string& name) const { return m_ids.at(name); }
    lab::Process& process(const std::string& name) { return m_processes.at(name); }

private:
    std::map<std::string, lab::Process> m_processes;
    std::map<std::string, int> m_ids;
};

void showSearch(Display& display, Clock::time_point start) {
    say("\nThe display has no configured address. It listens and asks on both interfaces.\n");
    const bool isSettled = display.queryUntil([&] { return display.localIp() != 0; }, 20s);
    check(isSettled, "the search has settled after " + inSeconds(secondsSince(start)));
    const std::string settled = net::transAddr(display.localIp());
    check(settled == kConnectedAddress,
          "on " + settled + ", the interface that leads to the radars; not on " + kUnconnectedAddress);
}

void showTable(Display& display, const Hosts& hosts) {
    const auto allAreListed = [&] {
        return std::ranges::all_of(kHosts, [&](const HostPlan& host) { return display.lists(host.name); });
    };
    say("\nIt asks the radars to announce themselves.\n");
    check(display.queryUntil(allAreListed, 10s), "all three radars are in the table");
    bool asPlanned = true;
    for (const HostPlan& host : kHosts) {
        const RadarAddress record = display.record(host.name);
        printRow(host.name, hosts.id(host.name), record);
        asPlanned = asPlanned && isAsPlanned(record, hosts.id(host.name));
    }
    check(asPlanned, "every endpoint is the one that the plan has for the host's id");
}

void showRenumbering(Display& display, Hosts& hosts) {
    const int before = hosts.id("South");
    say("\nMeanwhile it makes South give up host id %d.\n", before);
    int after = before;
    for (int tries = 0; after == before && tries < 5;
         ++tries) { // the new id is drawn, and may be the old one
        display.client().queryForAdjust("South");
        after = hosts.nextId("South");
    }
    check(after != before, "South has negotiated host id " + std::to_string(after));
    check(display.queryUntil([&] { return isAsPlanned(display.record("South"), after); }, 10s),
          "the table has followed");
    printRow("South", after, display.record("South"));
}

void showDeparture(Display& display, Hosts& hosts, const std::function<void()>& meanwhile) {
    say("\nNorth is stopped. The display goes on asking.\n");
    const auto stopped = Clock::now();
    check(hosts.process("North").stop() == 0, "North has ended, with status 0");
    meanwhile();
    const bool hasLeft = display.queryUntil([&] { return !display.lists("North"); }, 20s);
    const double seconds = secondsSince(stopped);
    say("\n");
    check(hasLeft, "North has left the table " + inSeconds(seconds) + " later");
    // Ages are counted in whole seconds, and the last answer came up to a second before the stop.
    check(seconds > 6.5 && seconds < 14, "as it does 8 seconds after it was last heard");
    check(display.lists("East") && display.lists("South"), "East and South have stayed");
}

void run() {
    lab::Lan lan({lab::display(2, 1), lab::radarHost(1), lab::radarHost(2), lab::radarHost(3)});
    say("A virtual LAN: three radar hosts, 10.20.1.1 to 10.20.1.3, and a display with two interfaces,\n"
        "%s, which leads nowhere, and %s, which leads to the radars.\n\n",
        kUnconnectedAddress, kConnectedAddress);
    say("The hosts negotiate their ids. That takes two seconds: one to object to a proposal, one to a "
        "claim.\n");
    Hosts hosts(lan);
    for (const HostPlan& host : kHosts)
        hosts.nextId(host.name);

    const lab::Inside inside = lan.node("display").enter();
    const auto start = Clock::now();
    Display display;
    showSearch(display, start);
    showTable(display, hosts);
    showDeparture(display, hosts, [&] { showRenumbering(display, hosts); });
}

} // namespace

int main() {
    lab::enterPrivateNetwork();
    const net::detail::Descriptor diagnostics(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    s_report = ::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w");
    if (s_report == nullptr || !diagnostics.isOpen() || ::dup2(diagnostics.get(), STDOUT_FILENO) == -1) {
        std::perror("demo");
        return EXIT_FAILURE;
    }
    std::filesystem::create_directory("/run/no-profile"); // private, as /run is
    ::setenv("INIPROFILE_DIR", "/run/no-profile", 1);
    try {
        const auto start = Clock::now();
        run();
        say("\nAll of it was seen, in %s.\n", inSeconds(secondsSince(start)).c_str());
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        say("\ndemo: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
