/// soak: makes the faults that occur in installations on the virtual LAN, and reports whether the library
/// keeps working through each.
#include "report.h"
#include "tcp_server_process.h"
#include "testbed.h"
#include "trial.h"

#include <UdpSocket/base/descriptor.h>
#include <lab/private_network.h>

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>

namespace {

using namespace soak;

constexpr int kMisuse = 2;
constexpr int kTriesForThePage = 5; // at least: fewer show no spread
constexpr size_t kLightTrialsAtOnce = 15;

struct Options {
    std::vector<std::string> rows{"*"};
    int times = 0; // as often as the table needs, or once
    bool full = false;
    bool list = false;
    bool mix = false;
    double minutes = 10;
    unsigned int seed = 0;
    std::string table;
};

/// @return the options, or ends the program
Options parse(int argc, char** argv) {
    Options options;
    options.seed = std::random_device{}();
    CLI::App app{"Makes faults on a virtual LAN and tells whether the library keeps working."};
    app.add_option("--rows", options.rows, "Only the faults whose names match one of these patterns: a*,b*")
        ->delimiter(',');
    app.add_option("--times", options.times, "How often to try each fault: once, five times for a table")
        ->check(CLI::Range(1, 1000));
    app.add_flag("--full", options.full, "Faults last as long as they are meant to: minutes, some of them");
    app.add_flag("--list", options.list, "List the faults and end");
    app.add_option("--table", options.table, "Replace the table at the end of this page");
    CLI::Option* mix = app.add_flag("--mix", options.mix, "Mix the faults at random, on one LAN");
    app.add_option("--minutes", options.minutes, "For so long (with --mix)")->needs(mix);
    app.add_option("--seed", options.seed, "The same seed gives the same sequence (with --mix)")->needs(mix);
    try {
        app.parse(argc, argv);
        const int fewest = options.table.empty() ? 1 : kTriesForThePage;
        if (options.times == 0)
            options.times = fewest;
        if (options.times < fewest)
            throw CLI::ValidationError("--table", "a page needs each fault five times");
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? 0 : kMisuse);
    }
    return options;
}

std::vector<Fault> selectFaults(const std::vector<std::string>& patterns) {
    std::vector<Fault> faults;
    for (const auto& family : {interfaceFaults(), surroundingFaults(), lossFaults(), hostFaults(),
                               tcpFaults(), clockFaults(), floodFaults()})
        for (const Fault& fault : family)
            if (std::ranges::any_of(patterns, [&](const std::string& pattern) {
                    return ::fnmatch(pattern.c_str(), fault.name, 0) == 0;
                }))
                faults.push_back(fault);
    return faults;
}

/// Tries the faults of a table that are as light, or as heavy, as told. @return whether all hold
bool runTrials(std::vector<Trials>& table, bool light, const Options& options, Report& report) {
    std::vector<Trials*> trials; // of each try
    for (Trials& row : table)
        if ((row.fault.load == Load::Light) == light)
            trials.insert(trials.end(), static_cast<size_t>(options.times), &row);
    std::deque<Trial> running;
    bool allHold = true;
    for (size_t ended = 0; ended < trials.size(); ++ended) {
        while (running.size() < (light ? kLightTrialsAtOnce : 1) && ended + running.size() < trials.size())
            running.emplace_back(trials[ended + running.size()]->fault, options.full);
        Trials& row = *trials[ended];
        report.begin(row.fault);
        row.results.push_back(running.front().result());
        running.pop_front();
        allHold = report.end(row.results.back()) && allHold;
    }
    return allHold;
}

bool runTable(const std::vector<Fault>& faults, const Options& options, Report& report) {
    const std::string conditions = machineState() + (options.full ? ", --full" : "");
    std::vector<Trials> table;
    for (const Fault& fault : faults)
        table.push_back({fault, {}});
    const bool lightHold = runTrials(table, true, options, report);
    const bool heavyHold = runTrials(table, false, options, report);
    if (!options.table.empty())
        writeTable(options.table, table, conditions);
    return lightHold && heavyHold;
}

/// Whether the permanent display holds more resources than when each fault had been made once.
class Growth {
public:
    explicit Growth(pid_t process) : m_process(process) {}

    void warmUp() {
        const Resources now = resourcesOf(m_process);
        m_max = {std::max(m_max.memory, now.memory), std::max(m_max.descriptors, now.descriptors),
                 std::max(m_max.threads, now.threads)};
    }
    /// @throws RequirementFailed when the process keeps more than it held before
    void check() const {
        constexpr long kSlack = 4096; // kB: the size of a heap varies
        const auto settled = [&] {
            const Resources now = resourcesOf(m_process);
            return now.memory <= m_max.memory + m_max.memory / 10 + kSlack &&
                   now.descriptors <= m_max.descriptors && now.threads <= m_max.threads;
        };
        secondsUntil(settled, 30s, "the display gives back what it took (" + now() + ")");
    }
    std::string now() const { return text(resourcesOf(m_process)) + ", at most " + text(m_max) + " before"; }

private:
    static std::string text(const Resources& resources) {
        return std::to_string(resources.memory) + " kB, " + std::to_string(resources.descriptors) +
               " descriptors, " + std::to_string(resources.threads) + " threads";
    }
    pid_t m_process;
    Resources m_max{};
};

/// All faults in an order drawn at random, then again in another.
class FaultSequence {
public:
    FaultSequence(std::vector<Fault> faults, unsigned int seed)
        : m_faults(std::move(faults)), m_random(seed) {}
    const Fault& next() {
        const size_t place = m_taken++ % m_faults.size();
        std::swap(m_faults[place], m_faults[place + m_random() % (m_faults.size() - place)]);
        return m_faults[place];
    }
    std::chrono::milliseconds pause() { return std::chrono::milliseconds(m_random() % 1000); }
    bool allWereMade() const { return m_taken > m_faults.size(); }

private:
    std::vector<Fault> m_faults;
    std::mt19937 m_random; // the same everywhere, unlike the distributions of the standard library
    size_t m_taken = 0;
};

/// A fault that does not hold is counted, and the mix goes on: hours are there to see what grows.
bool runMix(const std::vector<Fault>& faults, const Options& options, Report& report) {
    report.say("seed %u\n", options.seed);
    Testbed testbed(options.full, true);
    Growth growth(testbed.watch().process().pid());
    FaultSequence sequence(faults, options.seed);
    int made = 0;
    std::string failed;
    const auto start = Clock::now();
    while (secondsSince(start) < options.minutes * 60) {
        const Fault& fault = sequence.next();
        std::this_thread::sleep_for(sequence.pause());
        report.begin(fault);
        ++made;
        if (!report.end(runOnce(fault, testbed)))
            failed.append(failed.empty() ? "" : ", ").append(fault.name);
        try {
            secondsUntil([&] { return testbed.watch().lists(kPermanentRadar); }, 30s,
                         "the display lists the permanent radar");
            if (sequence.allWereMade())
                growth.check();
            else
                growth.warmUp(); // each fault may need other memory the first time
        } catch (const std::exception& error) {
            report.say("soak: after %s: %s\nsoak: to repeat: --mix --minutes %g --seed %u\n", fault.name,
                       error.what(), options.minutes, options.seed);
            return false;
        }
    }
    report.say("%d faults; did not hold: %s\n", made, failed.empty() ? "none" : failed.c_str());
    report.say("the display holds %s; %s; seed %u\n", growth.now().c_str(),
               sequence.allWereMade() ? "nothing has grown since every fault was made once"
                                      : "too short to tell whether anything grows",
               options.seed);
    return failed.empty();
}

} // namespace

int main(int argc, char** argv) {
    if (isServer(argc, argv))
        runServer(argv);
    const Options options = parse(argc, argv);
    const std::vector<Fault> faults = selectFaults(options.rows);
    if (options.list || faults.empty()) {
        for (const Fault& fault : faults)
            std::printf("%-22s %s\n", fault.name, fault.title);
        return faults.empty() ? kMisuse : EXIT_SUCCESS;
    }
    lab::enterPrivateNetwork();
    Report report; // keeps standard output; the library's own lines go to a file
    const net::detail::Descriptor diagnostics(
        ::open("/run/soak.errors", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!diagnostics.isOpen() || ::dup2(diagnostics.get(), STDOUT_FILENO) == -1 ||
        ::dup2(diagnostics.get(), STDERR_FILENO) == -1) {
        std::perror("soak");
        return EXIT_FAILURE;
    }
    ::setenv("INIPROFILE_DIR", "/run/no-profile", 1);
    try {
        const bool allHold =
            options.mix ? runMix(faults, options, report) : runTable(faults, options, report);
        return allHold ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        report.say("soak: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
