#include "bench.h"

#include <lab/private_network.h>

#include <arpa/inet.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace bench {

namespace {

std::string s_results;

void recordLine(const std::string& benchmark, const std::string& implementation, const std::string& unit,
                const std::string& values) {
    std::ofstream(s_results, std::ios::app)
        << benchmark << '\t' << implementation << '\t' << unit << '\t' << values << '\n';
}

} // namespace

bool quick() {
    return std::getenv("BENCH_QUICK") != nullptr;
}
int repetitions() {
    return quick() ? 2 : 15;
}
int fewRepetitions() {
    return quick() ? 2 : 5;
}
Seconds duration() {
    return Seconds(quick() ? 0.2 : 0.4);
}

void record(const std::string& benchmark, const std::string& implementation, const std::string& unit,
            const std::vector<double>& values) {
    std::string text;
    for (const double value : values)
        text.append(std::to_string(value)).append(" ");
    recordLine(benchmark, implementation, unit, text);
    std::fprintf(stderr, "  %-46s %-18s %12.3f %s\n", benchmark.c_str(), implementation.c_str(),
                 quantile(values, 0.5), unit.c_str());
}

void recordFailure(const std::string& benchmark, const std::string& implementation, const std::string& why) {
    recordLine(benchmark, implementation, "failed", why);
    std::fprintf(stderr, "  %-46s %-18s did not run: %s\n", benchmark.c_str(), implementation.c_str(),
                 why.c_str());
}

void start(int argc, char** argv) {
    if (argc != 2 || *argv[1] == '-') {
        std::fprintf(stderr, "usage: %s RESULTS\n", argv[0]);
        std::exit(2);
    }
    s_results = argv[1];
    lab::enterPrivateNetwork();
    std::signal(SIGPIPE, SIG_IGN);
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max; // a server with a thousand clients
    ::setrlimit(RLIMIT_NOFILE, &files);
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        std::exit(1);
}

sockaddr_in socketAddress(const std::string& address, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = ::inet_addr(address.c_str());
    return result;
}

Seconds processorTime() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return Seconds(seconds(usage.ru_utime) + seconds(usage.ru_stime));
}

void pinToProcessor(int number) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<std::size_t>(number), &processors);
    ::sched_setaffinity(0, sizeof processors, &processors);
}

double quantile(std::vector<double> values, double share) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5)];
}

Child::Child(const lab::Node& node, const Work& work) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("socketpair");
    m_pipe = net::detail::Descriptor(ends[0]);
    net::detail::Descriptor other(ends[1]);
    m_pid = ::fork();
    if (m_pid == -1)
        throw std::runtime_error("fork");
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        m_pipe.reset();
        int status = 1;
        try {
            const lab::Inside inside = node.enter();
            char byte = 'r';
            const std::vector<double> values = work([&] {
                if (::write(other.get(), &byte, 1) != 1 || ::read(other.get(), &byte, 1) != 1)
                    std::_Exit(1);
            });
            const std::size_t size = values.size() * sizeof(double);
            status = ::write(other.get(), values.data(), size) == static_cast<ssize_t>(size) ? 0 : 1;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "bench: %s\n", error.what());
        }
        std::_Exit(status);
    }
    other.reset(); // so that the child's end is the only one
    char byte;
    if (::read(m_pipe.get(), &byte, 1) != 1)
        throw std::runtime_error("could not be set up");
}

Child::~Child() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

std::vector<double> Child::finish() {
    const char byte = 'f';
    std::vector<double> values(64);
    ssize_t size = -1;
    if (::write(m_pipe.get(), &byte, 1) == 1)
        size = ::read(m_pipe.get(), values.data(), values.size() * sizeof(double));
    if (size <= 0 || size % static_cast<ssize_t>(sizeof(double)) != 0)
        throw std::runtime_error("ended early");
    values.resize(static_cast<std::size_t>(size) / sizeof(double));
    return values;
}

namespace {

/// A measurement that fails is repeated: on a busy machine any implementation can lose a datagram.
std::vector<double> measure(const Measurement& measurement) {
    constexpr int kAttempts = 3;
    for (int attempt = 1;; ++attempt) {
        try {
            return measurement.measure();
        } catch (const std::exception&) {
            if (attempt == kAttempts)
                throw;
        }
    }
}

} // namespace

void takeTurns(const std::vector<std::pair<std::string, std::string>>& benchmarksAndUnits,
               std::vector<Measurement> measurements, int times) {
    std::vector<std::vector<std::vector<double>>> values(
        measurements.size(), std::vector<std::vector<double>>(benchmarksAndUnits.size()));
    for (int turn = 0; turn < times; ++turn)
        for (std::size_t i = 0; i < measurements.size(); ++i) {
            if (!measurements[i].measure)
                continue;
            try {
                const std::vector<double> measured = measure(measurements[i]);
                for (std::size_t benchmark = 0; benchmark < benchmarksAndUnits.size(); ++benchmark)
                    values[i][benchmark].push_back(measured.at(benchmark));
            } catch (const std::exception& error) {
                for (const auto& [benchmark, unit] : benchmarksAndUnits)
                    recordFailure(benchmark, measurements[i].implementation, error.what());
                measurements[i].measure = nullptr;
            }
        }
    for (std::size_t benchmark = 0; benchmark < benchmarksAndUnits.size(); ++benchmark)
        for (std::size_t i = 0; i < measurements.size(); ++i)
            if (measurements[i].measure)
                record(benchmarksAndUnits[benchmark].first, measurements[i].implementation,
                       benchmarksAndUnits[benchmark].second, values[i][benchmark]);
}

} // namespace bench
