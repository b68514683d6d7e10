// Datagrams that are lost on the LAN, and answers that come while the display does not run.

#include "testbed.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>

namespace soak {

namespace {

constexpr const char* kHostAddress = "10.20.1.2"; // of host2
constexpr int kRadars = 48;
constexpr int kSilentRounds = 8;      // unanswered queries, one a second, until a radar is removed after 8 s
constexpr auto kShortestSilence = 7s; // 8, counted in whole seconds
constexpr auto kLongestSilence = 11s; // 8 to 10, on a machine that has other work
constexpr auto kOnTheWay = 1s;        // from one receiver of this process to the other

/// How far the share of the time that radars are missing scatters, as a standard deviation: a radar is
/// missing after a round when that one and the seven before it have failed, so rounds close to one another
/// depend on each other, and radars too, since a query that is lost is lost for all of them on the one
/// computer that serves them.
/// @param fails how often a round fails for a radar @param failsForTwo for two given ones at once
double scatterOf(double fails, double failsForTwo, double rounds) {
    double own = 0;
    double pairs = 0;
    for (int apart = 1 - kSilentRounds; apart < kSilentRounds; ++apart) {
        const int distance = std::abs(apart);
        const double independent = std::pow(fails, 2 * kSilentRounds);
        own += std::pow(fails, kSilentRounds + distance) - independent;
        pairs +=
            std::pow(failsForTwo, kSilentRounds - distance) * std::pow(fails, 2 * distance) - independent;
    }
    return std::sqrt((own + (kRadars - 1) * pairs) / (kRadars * rounds));
}

/// A share of all packets is dropped for a while. How much of that time is a present radar missing, and are
/// those missing that were not heard?
///
/// A round, a query and its answer, fails with q = 1 - (1 - loss)^2, and with several displays, whose answers
/// all displays receive, with q to the power of their number.
Figures dropPackets(Testbed& testbed, int percent, std::chrono::seconds duration, bool noneMissing) {
    std::vector<std::string> names;
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int i = 0; i < kRadars; ++i) {
        names.push_back(testbed.newName());
        servers.push_back(testbed.serve(testbed.host(), names.back(), 16 + i));
    }
    const GroupListener listener(testbed.display(), kDisplayAddress); // what arrives at the display
    const Client client(testbed.display(), kDisplayAddress);
    const auto begin = Clock::now();
    const auto arrived = [&](const std::string& name) { return listener.receivedSince(begin, name); };
    secondsUntil(
        [&] {
            return std::ranges::all_of(names, arrived) &&
                   std::ranges::all_of(names, [&](const std::string& name) { return client.lists(name); });
        },
        30s, "all radars are listed");

    testbed.lan().dropRate(percent);
    std::this_thread::sleep_for(std::chrono::seconds(kSilentRounds)); // no radar can be missing yet
    double sum = 0;
    int samples = 0;
    int unduly = 0;
    for (const auto start = Clock::now(); Clock::now() < start + duration; ++samples) {
        std::this_thread::sleep_for(100ms);
        for (const std::string& name : names) {
            const bool listed = client.lists(name);
            const auto now = Clock::now();
            const auto heardIn = [&](auto time) { return listener.receivedSince(now - time, name); };
            sum += listed ? 0 : 1;
            unduly += (listed ? !heardIn(kLongestSilence) : heardIn(kShortestSilence) && !heardIn(kOnTheWay));
        }
    }
    testbed.lan().dropRate(0);

    const double loss = percent / 100.0;
    const int displays = testbed.hasWatch() ? 2 : 1;
    const double q = std::pow(1 - std::pow(1 - loss, 2), displays);
    const double both = std::pow(loss + (1 - loss) * loss * loss, displays);
    const double computed = std::pow(q, kSilentRounds);
    const double scatter = scatterOf(q, both, static_cast<double>(duration.count()));
    const double measured = sum / samples / kRadars;
    return {{"% of the time missing", 100 * measured, noneMissing ? 0 : 100 * (computed + 3 * scatter)},
            {"% computed", 100 * computed},
            {"times missing though heard, or listed though not", static_cast<double>(unduly), 0}};
}

Figures loseThird(Testbed& testbed) {
    return dropPackets(testbed, 30, testbed.full() ? 600s : 60s, false);
}

Figures loseTwentieth(Testbed& testbed) {
    return dropPackets(testbed, 5, testbed.full() ? 600s : 30s, true);
}

/// Datagrams that the system has dropped at the process's network's sockets of the discovery port.
long dropped(pid_t process) {
    std::ifstream table("/proc/" + std::to_string(process) + "/net/udp");
    char port[8];
    std::snprintf(port, sizeof port, ":%04X ", wire::kDiscovery.port);
    long sum = 0;
    for (std::string line; std::getline(table, line);)
        if (line.find(port) != std::string::npos) {
            line.erase(line.find_last_not_of(' ') + 1);
            sum += std::stol(line.substr(line.rfind(' '))); // the last column
        }
    return sum;
}

Figures burst(Testbed& testbed) {
    constexpr auto kStopped = 20ms;
    Watch watch(testbed.display(), testbed.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"));
    secondsUntil([&] { return watch.lists(kPermanentRadar); }, 30s, "the display lists the radar");
    testbed.lan().dropRate(testbed.display(), 100); // so that the new radars are not listed yet
    std::vector<std::string> names;
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int id = 15; id <= 63; ++id) {
        names.push_back(testbed.newName());
        servers.push_back(testbed.serve(testbed.host(), names.back(), id == 15 ? 1 : id));
    }
    const pid_t process = watch.process().pid();
    watch.process().signal(SIGSTOP);
    testbed.lan().dropRate(testbed.display(), 0);
    const long before = dropped(process);
    {
        const lab::Inside inside = testbed.stranger().enter();
        const net::UdpSender asking(wire::kDiscovery.address, wire::kDiscovery.port, 0, 0);
        asking.sendData(wire::kQuery.data(), wire::kQuery.size());
    }
    std::this_thread::sleep_for(kStopped);
    watch.process().signal(SIGCONT);
    const auto allListed = [&] {
        return std::ranges::all_of(names, [&](const std::string& name) { return watch.lists(name); });
    };
    const double seconds = secondsUntil(allListed, 30s, "all 49 are listed");
    return {{"answers lost", static_cast<double>(dropped(process) - before), 0},
            {"s until all 49 listed", seconds, 2.5}};
}

/// A computer whose transmit queue does not move: what does the library's own traffic hold up there?
Figures queueStands(Testbed& testbed) {
    constexpr int kQueries = 3000;
    const lab::Node& node = testbed.host();
    const auto shape = [&node](const std::string& command) {
        lab::Process process = node.start({.command = {"sh", "-c", "tc qdisc " + command}});
        if (process.wait(10s) != 0)
            throw RequirementFailed("the link cannot be shaped");
    };
    auto client = std::make_unique<Client>(node, kHostAddress);
    secondsUntil([&] { return client->lists(kPermanentRadar); }, 30s, "the radar is listed");
    auto server = testbed.serve(node, testbed.newName());
    shape("add dev eth0 root tbf rate 8kbit burst 1600 limit 10000000");
    double longest = 0;
    for (int i = 0; i < kQueries; ++i) {
        const auto start = Clock::now();
        client->client().query();
        longest = std::max(longest, secondsSince(start));
    }
    const auto start = Clock::now();
    server.reset();
    client.reset();
    const double destroyed = secondsSince(start);
    shape("del dev eth0 root");
    return {{"s for the longest of 3,000 queries", longest, 1}, {"s until all is destroyed", destroyed, 2}};
}

constexpr Fault kFaults[] = {
    {"loss-30", "Loss of 30 % both ways",
     "packets dropped at random for 60 s (10 min with --full), 48 radars, a query a second",
     "a radar is missing no more often than computed, q^8 of the time, q = 1 - 0.7^2, within three standard "
     "deviations; "
     "only what was not heard is missing",
     loseThird},
    {"loss-5", "Loss of 5 % both ways",
     "packets dropped at random for 30 s (10 min with --full), 48 radars, a query a second",
     "no radar is missing; only what was not heard is", loseTwentieth},
    {"burst", "Burst of answers", "49 hosts answer one query while the display is stopped for 20 ms",
     "no answer is lost, and all are listed within 2.5 s", burst, Load::Heavy},
    {"queue-stands", "Transmit queue that stands", "a computer's link shaped to 8 kbit/s, and asked for more",
     "no query, no answer and no destructor waits for room", queueStands, Load::Heavy},
};

} // namespace

std::span<const Fault> lossFaults() {
    return kFaults;
}

} // namespace soak
