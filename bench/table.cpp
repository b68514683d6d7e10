// What runs inside one process: handling an announcement, the look-ups in the table, and MD5.

#include "bench.h"
#include "openssl_md5.h"

#include <UdpSocket/discovery/multi_radar_client.h>
#include <UdpSocket/md5.h>
#include <UdpSocket/protocol/wire.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>

namespace {

std::atomic<long> s_allocations = 0;

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

constexpr int kHosts = 49;
constexpr int kEntries = 3 * kHosts; // each host plain, with user endpoints and over TCP

/// A profile of its own, and how often it is opened.
class Profile {
public:
    Profile() {
        std::string name = std::filesystem::temp_directory_path() / "bench-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        m_path = name;
        std::ofstream(m_path / "profile.ini") << "[Local]\nIP = 127.0.0.1\n";
        ::setenv("INIPROFILE_DIR", name.c_str(), 1);
        m_watch = net::detail::Descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (::inotify_add_watch(m_watch.get(), (m_path / "profile.ini").c_str(),
                                IN_OPEN | IN_CLOSE) ==
            -1) // inotify merges equal events in a row, so closing separates two opens
            throw std::runtime_error("inotify");
    }
    ~Profile() { std::filesystem::remove_all(m_path); }

    std::filesystem::path file() const { return m_path / "profile.ini"; }

    /// Since the last call.
    int timesOpened() {
        int opened = 0;
        alignas(inotify_event) char events[4096];
        for (ssize_t size; (size = ::read(m_watch.get(), events, sizeof events)) > 0;)
            for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(sizeof(inotify_event)))
                opened += (reinterpret_cast<const inotify_event*>(events + at)->mask & IN_OPEN) != 0 ? 1 : 0;
        return opened;
    }

private:
    std::filesystem::path m_path;
    net::detail::Descriptor m_watch;
};

std::string announcement(int number) {
    std::string datagram(wire::kLongAnnouncement.length, '\0');
    datagram.replace(0, 2, wire::text(wire::kAnnouncement));
    const std::string name = "radar " + std::to_string(number);
    datagram.replace(wire::kName.offset, name.size(), name);
    const auto id = static_cast<std::uint8_t>(number % kHosts == 0 ? 1 : 15 + number % kHosts);
    for (const wire::EndpointPlace& place : wire::kLongAnnouncement.endpoints) {
        const NetAddress endpoint = plan::announcedEndpoint(id, place.field, place.stream);
        datagram.replace(place.offset, sizeof endpoint, reinterpret_cast<const char*>(&endpoint),
                         sizeof endpoint);
    }
    return datagram;
}

void announce(MultiRadarClientPrivate& client, const std::string& datagram) {
    client.OnUdpGroupDataReceived("10.0.0.1", 6878, "236.6.7.5", 6878, datagram.data(),
                                  static_cast<int>(datagram.size()));
}

std::unique_ptr<MultiRadarClientPrivate> clientWith(int entries) {
    auto client = std::make_unique<MultiRadarClientPrivate>();
    for (int number = 0; number < entries; ++number)
        announce(*client, announcement(number));
    return client;
}

std::unique_ptr<Profile> s_profile;

void handleAnnouncement(benchmark::State& state) {
    const auto client = clientWith(kHosts);
    std::vector<std::string> datagrams;
    for (int number = 0; number < kHosts; ++number)
        datagrams.push_back(announcement(number));
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // until its other threads are idle
    s_profile->timesOpened();
    const long before = s_allocations;
    std::size_t next = 0;
    for (auto _ : state)
        announce(*client, datagrams[next++ % kHosts]);
    state.counters["allocations"] =
        static_cast<double>(s_allocations - before) / static_cast<double>(state.iterations());
    state.counters["profile opens"] = s_profile->timesOpened();
}

/// What looking whether the profile has changed, which each announcement does, costs by itself.
void statProfile(benchmark::State& state) {
    const std::string path = s_profile->file();
    struct stat status {};
    for (auto _ : state)
        benchmark::DoNotOptimize(::stat(path.c_str(), &status));
}

void getAddress(benchmark::State& state) {
    const auto client = clientWith(static_cast<int>(state.range(0)));
    const std::string name = client->getRadar()[static_cast<std::size_t>(state.range(0) / 2)];
    for (auto _ : state)
        benchmark::DoNotOptimize(client->getAddress(name.c_str(), 0));
}

void getRadarTexts(benchmark::State& state) {
    const auto client = clientWith(static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(client->getRadar());
}

void getRadarArray(benchmark::State& state) {
    const auto client = clientWith(static_cast<int>(state.range(0)));
    char names[600][24];
    for (auto _ : state)
        benchmark::DoNotOptimize(client->getRadar(names, 600));
}

void libraryMd5(benchmark::State& state) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)), 'x');
    unsigned char digest[16];
    MD5 md5;
    MD5_CTX context;
    for (auto _ : state) {
        md5.MD5Init(&context);
        md5.MD5Update(&context, bytes.data(), static_cast<unsigned int>(bytes.size()));
        md5.MD5Final(&context, digest);
        benchmark::DoNotOptimize(digest);
    }
}

void opensslMd5(benchmark::State& state) {
    const std::vector<unsigned char> bytes(static_cast<std::size_t>(state.range(0)), 'x');
    unsigned char digest[16];
    for (auto _ : state) {
        bench::opensslMd5(bytes.data(), bytes.size(), digest);
        benchmark::DoNotOptimize(digest);
    }
}

/// Writes the repetitions of each benchmark, whose name is "BENCHMARK|IMPLEMENTATION", to the file of
/// results.
class Reporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            const std::string name = run.run_name.function_name;
            m_values[name + "|ns"].push_back(run.GetAdjustedCPUTime());
            for (const auto& [counter, value] : run.counters)
                m_values[name.substr(0, name.find('|')) + ", " + counter + name.substr(name.find('|')) +
                         "|count"]
                    .push_back(value);
        }
    }
    void Finalize() override {
        for (const auto& [name, values] : m_values) {
            const std::size_t first = name.find('|');
            const std::size_t last = name.rfind('|');
            bench::record(name.substr(0, first), name.substr(first + 1, last - first - 1),
                          name.substr(last + 1), values);
        }
    }

private:
    std::map<std::string, std::vector<double>> m_values;
};

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    s_profile = std::make_unique<Profile>();
    std::this_thread::sleep_for(std::chrono::seconds(4)); // a file just written may change again unnoticed
    const auto add = [](const std::string& name, void (*function)(benchmark::State&), int argument) {
        benchmark::RegisterBenchmark(name.c_str(), function)
            ->Arg(argument)
            ->MinTime(bench::quick() ? 0.01 : 0.2)
            ->Repetitions(bench::repetitions());
    };
    add("one long announcement|library", handleAnnouncement, 0);
    add("one long announcement|stat of profile.ini", statProfile, 0);
    add("getAddress, 1 entry|library", getAddress, 1);
    add("getAddress, 147 entries|library", getAddress, kEntries);
    add("getRadar as texts, 147 entries|library", getRadarTexts, kEntries);
    add("getRadar as array, 147 entries|library", getRadarArray, kEntries);
    for (const int names : {1, 49, 147, 500}) {
        add("growth/names, getAddress/" + std::to_string(names) + "|library", getAddress, names);
        add("growth/names, getRadar/" + std::to_string(names) + "|library", getRadarArray, names);
    }
    for (const int size : {65536, 64}) {
        const std::string name = "MD5 " + std::string(size == 64 ? "64 B" : "64 KiB");
        add(name + "|library", libraryMd5, size);
        add(name + "|OpenSSL", opensslMd5, size);
    }
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    char* options[] = {argv[0], interleave.data(), nullptr};
    int count = 2;
    benchmark::Initialize(&count, options);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    s_profile.reset();
}
