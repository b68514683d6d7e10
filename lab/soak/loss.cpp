// Datagrams that get lost on the way, and answers that come while nobody listens.

#include "stage.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>

namespace soak {

namespace {

constexpr int kRadars = 48;
constexpr int kSilentRounds = 8; // a radar leaves when 8 s have passed, which is so many queries in vain

/// A share of all packets is dropped for a while. How much of that time is a present radar missing?
///
/// A round, a query and its answer, fails with q = 1 - (1 - loss)^2, and with several displays, whose answers
/// everybody hears, with q to the power of their number. After a round, a radar is missing when that one and
/// the seven before it have failed: q^8 of the time.
Figures lose(Stage& stage, int percent, std::chrono::seconds duration, bool never) {
    std::vector<std::string> names;
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int i = 0; i < kRadars; ++i) {
        names.push_back(stage.freshName());
        servers.push_back(stage.serve(stage.host(), names.back(), 16 + i));
    }
    const Client client(stage.display(), kDisplayAddress);
    const auto missing = [&] {
        return std::ranges::count_if(names, [&](const std::string& name) { return !client.lists(name); });
    };
    secondsUntil([&] { return missing() == 0; }, 30s, "all radars are listed");

    stage.lan().dropRate(percent);
    std::this_thread::sleep_for(std::chrono::seconds(kSilentRounds)); // nobody can be missing yet
    double sum = 0;
    int looks = 0;
    for (const auto start = Clock::now(); Clock::now() < start + duration; ++looks) {
        std::this_thread::sleep_for(100ms);
        sum += static_cast<double>(missing());
    }
    stage.lan().dropRate(0);

    const double q = std::pow(1 - std::pow(1 - percent / 100.0, 2), stage.hasWatch() ? 2 : 1);
    const double computed = std::pow(q, kSilentRounds);
    const double radarSeconds = kRadars * static_cast<double>(duration.count());
    // Absences last 1/(1-q) rounds in the mean, so their sum scatters more than single seconds would; and a
    // lost query is lost for all radars, since one computer serves them, which more than doubles that.
    const double scatter = std::sqrt(computed / radarSeconds * (1 + q) / (1 - q));
    const double seen = sum / looks / kRadars;
    return {{"% of the time missing", 100 * seen, never ? 0 : 100 * (computed + 10 * scatter)},
            {"% computed", 100 * computed}};
}

Figures loseThird(Stage& stage) {
    return lose(stage, 30, stage.full() ? 600s : 60s, false);
}

Figures loseTwentieth(Stage& stage) {
    return lose(stage, 5, stage.full() ? 600s : 30s, true);
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

Figures burst(Stage& stage) {
    constexpr auto kHeldOff = 20ms;
    Watch watch(stage.display(), stage.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"));
    secondsUntil([&] { return watch.lists(kStanding); }, 30s, "the display lists the radar");
    stage.lan().dropRate(stage.display(), 100); // it does not know them yet
    std::vector<std::string> names;
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int id = 15; id <= 63; ++id) {
        names.push_back(stage.freshName());
        servers.push_back(stage.serve(stage.host(), names.back(), id == 15 ? 1 : id));
    }
    const pid_t process = watch.process().pid();
    watch.process().signal(SIGSTOP);
    stage.lan().dropRate(stage.display(), 0);
    const long before = dropped(process);
    {
        const lab::Inside inside = stage.stranger().enter();
        const net::UdpSender asking(wire::kDiscovery.address, wire::kDiscovery.port, 0, 0);
        asking.sendData(wire::kQuery.data(), wire::kQuery.size());
    }
    std::this_thread::sleep_for(kHeldOff);
    watch.process().signal(SIGCONT);
    const auto allListed = [&] {
        return std::ranges::all_of(names, [&](const std::string& name) { return watch.lists(name); });
    };
    const double seconds = secondsUntil(allListed, 30s, "all 49 are listed");
    return {{"answers lost", static_cast<double>(dropped(process) - before)},
            {"s until all 49 listed", seconds, 2.5}};
}

constexpr Row kRows[] = {
    {"loss-30", "Loss of 30 % both ways",
     "packets dropped at random for 60 s (10 min with --full), 48 radars, a query a second",
     "a radar is missing no more often than computed, but for chance: q^8 of the time, q = 1 - 0.7^2",
     loseThird},
    {"loss-5", "Loss of 5 % both ways",
     "packets dropped at random for 30 s (10 min with --full), 48 radars, a query a second",
     "no radar is ever missing", loseTwentieth},
    {"burst", "Burst of answers", "49 hosts answer one query while the display is stopped for 20 ms",
     "all are listed after the next query, 2.5 s at most", burst},
};

} // namespace

std::span<const Row> lossRows() {
    return kRows;
}

} // namespace soak
