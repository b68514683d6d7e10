/// @file
/// What all benchmarks share: measured processes, implementations that take turns, and the file of results.
#pragma once

#include <lab/lan.h>

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// Whether BENCH_QUICK is set: everything runs, for too short a time to mean much.
bool quick();
/// How often a comparison is repeated.
int repetitions();
/// The same for what takes seconds each time, and for the points of curves.
int fewRepetitions();
/// How long one measurement of a rate runs.
Seconds duration();

/// Appends a line to the file of results: the benchmark, the implementation, the unit, and each repetition's
/// value. A benchmark named "growth/NAME/X" is the point at X of the curve NAME.
void record(const std::string& benchmark, const std::string& implementation, const std::string& unit,
            const std::vector<double>& values);
/// An implementation that did not run, and why.
void recordFailure(const std::string& benchmark, const std::string& implementation, const std::string& why);

/// Names the file of results (the first argument), moves into a private network and silences the library's
/// diagnostics. Comes first in main.
void start(int argc, char** argv);

/// @param port host order
sockaddr_in socketAddress(const std::string& address, unsigned short port);

/// User and system time of this process so far.
Seconds processorTime();

/// Keeps the calling thread, and threads and processes that it starts, on one processor. Does nothing where
/// the machine has no processor of that number.
void pinToProcessor(int number);

/// The value below which @p share of the values are.
double quantile(std::vector<double> values, double share);

/// A process of its own in one node of the LAN, so that its processor time can be measured by itself.
///
/// The calling process has no other thread. Ends with the object.
class Child {
public:
    /// Tells the parent that everything is set up, and waits until it calls finish().
    using Wait = std::function<void()>;
    using Work = std::function<std::vector<double>(const Wait& wait)>;

    /// Returns when @p work waits. @throws std::runtime_error when it fails before that
    Child(const lab::Node& node, const Work& work);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Lets the work continue and waits for what it returns. @throws std::runtime_error when it fails
    std::vector<double> finish();
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    net::detail::Descriptor m_pipe; // a socket pair's end
};

/// How one implementation is measured.
struct Measurement {
    std::string implementation;
    std::function<std::vector<double>()> measure; ///< one value for each of the benchmarks
};

/// Measures several implementations, which take turns in each repetition. One that throws three times in a
/// row is reported and left out from then on.
void takeTurns(const std::vector<std::pair<std::string, std::string>>& benchmarksAndUnits,
               std::vector<Measurement> measurements, int times = repetitions());

} // namespace bench
