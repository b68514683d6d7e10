/// soak: makes the faults of an installation's life on the virtual LAN, and tells whether the library keeps
/// working through each.
#include "report.h"
#include "stage.h"
#include "tcp_server_process.h"

#include <lab/private_network.h>

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

using namespace soak;

constexpr int kMisuse = 2;

struct Options {
    std::vector<std::string> rows{"*"};
    int times = 1;
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
    app.add_option("--times", options.times, "How often to try each fault")->check(CLI::Range(1, 1000));
    app.add_flag("--full", options.full, "Faults last as long as they are meant to: minutes, some of them");
    app.add_flag("--list", options.list, "List the faults and end");
    app.add_option("--table", options.table, "Replace the table at the end of this page");
    CLI::Option* mix = app.add_flag("--mix", options.mix, "Mix the faults at random, on one LAN");
    app.add_option("--minutes", options.minutes, "For so long (with --mix)")->needs(mix);
    app.add_option("--seed", options.seed, "The same seed gives the same sequence (with --mix)")->needs(mix);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? 0 : kMisuse);
    }
    return options;
}

std::vector<Row> chosenRows(const std::vector<std::string>& patterns) {
    std::vector<Row> rows;
    for (const auto& family : {interfaceRows(), lossRows(), hostRows(), tcpRows(), clockRows(), floodRows()})
        for (const Row& row : family)
            if (std::ranges::any_of(patterns, [&](const std::string& pattern) {
                    return ::fnmatch(pattern.c_str(), row.name, 0) == 0;
                }))
                rows.push_back(row);
    return rows;
}

bool runTable(const std::vector<Row>& rows, const Options& options, Report& report) {
    std::vector<Tries> table;
    const std::string conditions = machineState() + (options.full ? ", --full" : "");
    bool allHeld = true;
    for (const Row& row : rows) {
        Tries tries{row, {}, {}};
        for (int i = 0; i < options.times; ++i) {
            Stage stage(options.full, row.crowd);
            report.begin(row);
            allHeld = report.end(tryOnce(row, stage, tries)) && allHeld;
        }
        table.push_back(std::move(tries));
    }
    if (!options.table.empty())
        writeTable(options.table, table, conditions);
    return allHeld;
}

/// Growth of the standing display beyond what it held when it had seen every fault it was warmed up with.
class Growth {
public:
    explicit Growth(pid_t process) : m_process(process) {}

    void warmUp() {
        const Resources now = resourcesOf(m_process);
        m_most = {std::max(m_most.memory, now.memory), std::max(m_most.descriptors, now.descriptors),
                  std::max(m_most.threads, now.threads)};
    }
    /// @throws Broken when the process keeps more than it held before
    void check() const {
        constexpr long kSlack = 4096; // kB: a heap does not come to rest at the same size
        const auto settled = [&] {
            const Resources now = resourcesOf(m_process);
            return now.memory <= m_most.memory + m_most.memory / 10 + kSlack &&
                   now.descriptors <= m_most.descriptors && now.threads <= m_most.threads;
        };
        secondsUntil(settled, 30s,
                     "the display gives back what it took (" + text(m_most) + " before, " +
                         text(resourcesOf(m_process)) + " now)");
    }
    std::string now() const { return text(resourcesOf(m_process)); }

private:
    static std::string text(const Resources& held) {
        return std::to_string(held.memory) + " kB, " + std::to_string(held.descriptors) + " descriptors, " +
               std::to_string(held.threads) + " threads";
    }
    pid_t m_process;
    Resources m_most{};
};

/// All faults in an order drawn at random, then again in another.
class Sequence {
public:
    Sequence(std::vector<Row> rows, unsigned int seed) : m_rows(std::move(rows)), m_random(seed) {}
    const Row& next() {
        const size_t place = m_taken++ % m_rows.size();
        std::swap(m_rows[place], m_rows[place + m_random() % (m_rows.size() - place)]);
        return m_rows[place];
    }
    std::chrono::milliseconds pause() { return std::chrono::milliseconds(m_random() % 1000); }
    bool hadAll() const { return m_taken > m_rows.size(); }

private:
    std::vector<Row> m_rows;
    std::mt19937 m_random; // the same everywhere, unlike the library's distributions
    size_t m_taken = 0;
};

bool runMix(const std::vector<Row>& rows, const Options& options, Report& report) {
    report.say("seed %u\n", options.seed);
    Stage stage(options.full, true);
    Growth growth(stage.watch().process().pid());
    Sequence sequence(rows, options.seed);
    const auto start = Clock::now();
    while (secondsSince(start) < options.minutes * 60) {
        const Row& row = sequence.next();
        std::this_thread::sleep_for(sequence.pause());
        report.begin(row);
        try {
            Tries once{row, {}, {}};
            if (!report.end(tryOnce(row, stage, once)))
                throw Broken("it did not hold");
            secondsUntil([&] { return stage.watch().lists(kStanding); }, 30s,
                         "the display lists the standing radar");
            if (sequence.hadAll())
                growth.check();
            else
                growth.warmUp(); // each fault has its own need of memory
        } catch (const std::exception& error) {
            report.say("soak: %s: %s\nsoak: to repeat: --mix --minutes %g --seed %u\n", row.name,
                       error.what(), options.minutes, options.seed);
            return false;
        }
    }
    report.say("the display holds %s; %s; seed %u\n", growth.now().c_str(),
               sequence.hadAll() ? "nothing has grown since every fault was made once"
                                 : "too short to tell whether anything grows",
               options.seed);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (isServer(argc, argv))
        runServer(argv);
    const Options options = parse(argc, argv);
    const std::vector<Row> rows = chosenRows(options.rows);
    if (options.list || rows.empty()) {
        for (const Row& row : rows)
            std::printf("%-22s %s\n", row.name, row.fault);
        return rows.empty() ? kMisuse : EXIT_SUCCESS;
    }
    lab::enterPrivateNetwork();
    Report report; // keeps standard output; the library's own lines go to a file
    const int diagnostics = ::open("/run/soak.errors", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (diagnostics == -1 || ::dup2(diagnostics, STDOUT_FILENO) == -1 ||
        ::dup2(diagnostics, STDERR_FILENO) == -1) {
        std::perror("soak");
        return EXIT_FAILURE;
    }
    ::setenv("INIPROFILE_DIR", "/run/no-profile", 1);
    try {
        const bool held = options.mix ? runMix(rows, options, report) : runTable(rows, options, report);
        return held ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        report.say("soak: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
