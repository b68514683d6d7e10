/// @file
/// Simulates hours on a LAN, each from a seed of its own, and looks at the library's protocols all the time.

#include "scenario.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

using namespace simulation;

namespace {

struct Options {
    std::uint64_t seed = 1;
    std::uint32_t hours = 1;
    std::int64_t seconds = 3600;
    std::string scenario = "small";
    unsigned int jobs = 0;
};

/// Of each hour, up to the first that failed.
std::vector<Outcome> simulateAll(const Options& options) {
    const Scenario& scenario = options.scenario == kFull.name ? kFull : kSmall;
    std::vector<Outcome> outcomes(options.hours);
    std::atomic<std::uint32_t> next = 0;
    std::atomic<bool> failed = false;
    const auto work = [&] {
        for (std::uint32_t hour; !failed && (hour = next++) < options.hours;) {
            outcomes[hour] = simulate(scenario, options.seed + hour, options.seconds);
            if (!outcomes[hour].failure.empty())
                failed = true;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned int i = 1; i < options.jobs; ++i)
        threads.emplace_back(work);
    work();
    for (std::thread& thread : threads)
        thread.join();
    return outcomes;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Simulates hours on a LAN in virtual time; hour number N has the seed SEED + N."};
    app.add_option("--seed", options.seed, "of the first hour")->capture_default_str();
    app.add_option("--hours", options.hours, "how many")->capture_default_str()->check(CLI::PositiveNumber);
    app.add_option("--seconds", options.seconds, "in each of them")->capture_default_str();
    app.add_option("--scenario", options.scenario, "which LAN")
        ->capture_default_str()
        ->check(CLI::IsMember({kSmall.name, kFull.name}));
    app.add_option("--jobs", options.jobs, "hours at the same time; 0: one a processor");
    CLI11_PARSE(app, argc, argv);
    if (options.jobs == 0)
        options.jobs = std::max(1U, std::thread::hardware_concurrency());

    const std::vector<Outcome> outcomes = simulateAll(options);
    Counts sum;
    for (std::size_t hour = 0; hour < outcomes.size(); ++hour) {
        const auto& [failure, steps, counts] = outcomes[hour];
        const std::string seed = std::to_string(options.seed + hour);
        if (!failure.empty()) {
            std::printf("%sseed %s: does not hold: %s\n"
                        "again: scripts/simulate --scenario %s --seed %s --seconds %lld\n",
                        steps.c_str(), seed.c_str(), failure.c_str(), options.scenario.c_str(), seed.c_str(),
                        static_cast<long long>(options.seconds));
            return 1;
        }
        for (const auto& [what, count] : counts)
            sum[what] += count;
    }
    std::printf("%s LAN, %u times %lld seconds from seed %llu:", options.scenario.c_str(), options.hours,
                static_cast<long long>(options.seconds), static_cast<unsigned long long>(options.seed));
    for (const auto& [what, count] : sum)
        std::printf(" %llu %s;", static_cast<unsigned long long>(count), what.data());
    std::printf("\n");
}
