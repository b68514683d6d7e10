// From a query to the last of 49 hosts that stand in the display's table, what a display costs while nothing
// happens, and how both grow.

#include "discovery_implementations.h"

#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <unistd.h>

#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Child;
using bench::Clock;
using bench::DiscoveryImplementation;
using bench::kHosts;
using bench::Seconds;

using Hosts = std::deque<Child>;

/// Brings hosts up to @p count, each on a computer of its own.
void addHosts(lab::Lan& lan, Hosts& hosts, const DiscoveryImplementation& implementation, int count) {
    for (int number = static_cast<int>(hosts.size()) + 1; number <= count; ++number)
        hosts.emplace_back(lan.node("host" + std::to_string(implementation.oneComputer ? 1 : number)),
                           [&implementation, number](const Child::Wait& wait) -> std::vector<double> {
                               const auto host = implementation.host(number);
                               wait();
                               return {0};
                           });
}

/// The median of a few searches of a new display.
std::vector<double> find(lab::Lan& lan, const DiscoveryImplementation& implementation, int hosts) {
    return Child(lan.node("display"),
                 [&](const Child::Wait& wait) -> std::vector<double> {
                     const auto finder = implementation.finder();
                     wait();
                     std::vector<double> times;
                     for (int i = 0; i < implementation.searches; ++i)
                         times.push_back(finder->find(hosts));
                     return {bench::quantile(times, 0.5)};
                 })
        .finish();
}

// -------------------------------------------------------------------------------------------------- idle

struct Figures {
    double threads = 0;
    double wakeUps = 0;  // all threads' voluntary switches so far
    double ticks = 0;    // of processor time so far
    double resident = 0; // MiB
};

std::map<std::string, double> statusOf(const std::filesystem::path& directory) {
    std::map<std::string, double> fields;
    std::ifstream file(directory / "status");
    for (std::string line; std::getline(file, line);)
        if (const std::size_t colon = line.find(':'); colon != std::string::npos)
            std::istringstream(line.substr(colon + 1)) >> fields[line.substr(0, colon)];
    return fields;
}

Figures figuresOf(pid_t process) {
    const std::filesystem::path directory = "/proc/" + std::to_string(process);
    Figures figures;
    std::map<std::string, double> status = statusOf(directory);
    figures.threads = status["Threads"];
    figures.resident = status["VmRSS"] / 1024;
    for (const auto& thread : std::filesystem::directory_iterator(directory / "task"))
        figures.wakeUps += statusOf(thread.path())["voluntary_ctxt_switches"];
    std::ifstream stat(directory / "stat");
    std::string text;
    std::getline(stat, text);
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    figures.ticks = user + system;
    return figures;
}

/// What displays that know all hosts cost in half a minute without a query.
void idle(lab::Lan& lan) {
    const Seconds time = bench::quick() ? 3s : 30s;
    struct Display {
        std::string name;
        std::unique_ptr<Child> child;
        pid_t process = 0;
        Figures before{};
    };
    std::vector<Display> displays;
    for (const DiscoveryImplementation& implementation : bench::discoveryImplementations()) {
        if (implementation.name == "raw")
            continue;
        try {
            Display display{implementation.name, nullptr};
            int helper[2];
            if (::pipe(helper) != 0)
                throw std::runtime_error("pipe");
            display.child = std::make_unique<Child>(
                lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
                    const auto finder = implementation.finder();
                    finder->find(kHosts);
                    const pid_t process = finder->helper();
                    if (::write(helper[1], &process, sizeof process) == sizeof process)
                        wait();
                    return {0};
                });
            if (::read(helper[0], &display.process, sizeof display.process) != sizeof display.process)
                throw std::runtime_error("pipe");
            for (const int end : helper)
                ::close(end);
            if (display.process == 0)
                display.process = display.child->pid();
            displays.push_back(std::move(display));
        } catch (const std::exception& error) {
            bench::recordFailure("idle display, threads", implementation.name, error.what());
        }
    }
    std::this_thread::sleep_for(1s);
    for (Display& display : displays)
        display.before = figuresOf(display.process);
    std::this_thread::sleep_for(time);
    for (Display& display : displays) {
        const Figures after = figuresOf(display.process);
        bench::record("idle display, threads", display.name, "threads", {after.threads});
        bench::record("idle display, wake-ups in 30 s", display.name, "wake-ups",
                      {(after.wakeUps - display.before.wakeUps) * 30 / time.count()});
        bench::record("idle display, processor in 30 s", display.name, "ticks",
                      {(after.ticks - display.before.ticks) * 30 / time.count()});
        bench::record("idle display, resident memory", display.name, "MiB", {after.resident});
    }
}

// ---------------------------------------------------------------------------------------------- displays

/// A display among @p displays that ask all hosts once a second: its processor time for the answers to all of
/// them.
std::vector<double> amongDisplays(lab::Lan& lan, int displays) {
    const int seconds = bench::quick() ? 1 : 2;
    Child child(lan.node("display"), [](const Child::Wait& wait) -> std::vector<double> {
        MultiRadarClient client;
        client.setLocalIP(net::transAddr(bench::kFinderIp.c_str()));
        for (const auto end = Clock::now() + 5s; client.getRadar().size() < kHosts && Clock::now() < end;) {
            client.query();
            std::this_thread::sleep_for(50ms);
        }
        std::atomic<bool> running = true;
        const Seconds before = bench::processorTime();
        std::thread asking([&] {
            while (running) {
                client.query();
                for (int i = 0; i < 20 && running; ++i)
                    std::this_thread::sleep_for(50ms);
            }
        });
        const auto start = Clock::now();
        wait();
        const Seconds spent = bench::processorTime() - before;
        const Seconds passed = Clock::now() - start;
        running = false;
        asking.join();
        return {spent.count() / passed.count() * 1e3};
    });
    const lab::Inside inside = lan.node("display2").enter();
    const net::UdpSender others(wire::kDiscovery.address, wire::kDiscovery.port, net::transAddr("10.20.2.2"),
                                0);
    for (int query = 0; query < seconds * std::max(displays - 1, 1); ++query) {
        if (displays > 1)
            others.sendData(wire::kQuery.data(), static_cast<int>(wire::kQuery.size()));
        std::this_thread::sleep_for(Seconds(1.0) / std::max(displays - 1, 1));
    }
    return child.finish();
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    std::vector<lab::NodePlan> plans{lab::display(1), {"display2", {{"10.20.2.2/16"}}}};
    for (int number = 1; number <= kHosts; ++number)
        plans.push_back(lab::radarHost(number));
    lab::Lan lan(plans);
    const std::vector<DiscoveryImplementation>& implementations = bench::discoveryImplementations();

    std::map<std::string, Hosts> hosts;
    for (const int count : {1, 10, 20, 30, 40, kHosts}) {
        std::vector<bench::Measurement> measurements;
        for (std::size_t i = 0; i < 2; ++i) {
            addHosts(lan, hosts[implementations[i].name], implementations[i], count);
            measurements.push_back(
                {implementations[i].name, [&, i, count] { return find(lan, implementations[i], count); }});
        }
        bench::takeTurns({{"growth/hosts/" + std::to_string(count), "ms"}}, measurements,
                         bench::fewRepetitions());
    }
    for (const int displays : {1, 5, 10, 15, 20})
        bench::takeTurns({{"growth/displays/" + std::to_string(displays), "ms of processor a second"}},
                         {{"library", [&] { return amongDisplays(lan, displays); }}}, bench::quick() ? 1 : 5);

    for (const DiscoveryImplementation& implementation : implementations) {
        try {
            addHosts(lan, hosts[implementation.name], implementation, kHosts);
        } catch (const std::exception& error) { // its display then reports that it does not find all hosts
            std::fprintf(stderr, "  a host of %s: %s\n", implementation.name.c_str(), error.what());
        }
    }
    std::this_thread::sleep_for(5s); // until they have exchanged what they tell one another at the start
    std::vector<bench::Measurement> measurements;
    for (const DiscoveryImplementation& implementation : implementations)
        measurements.push_back({implementation.name, [&] { return find(lan, implementation, kHosts); }});
    bench::takeTurns({{"discovery of 49 two-stream hosts", "ms"}}, measurements, bench::fewRepetitions());
    idle(lan);
}
