// What recording a full LAN costs, beside a capture of everything that its interface hears.

#include "bench.h"
#include "udp_source.h"

#include <lab/process.h>

#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/udpsocket.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Clock;
using bench::Group;
using bench::Seconds;

constexpr std::uint8_t kIds[] = {16, 24, 32, 40}; // of the radars that send a picture
constexpr std::size_t kDatagram = 1400;
constexpr double kRate = 8000; // datagrams a second, of all four

std::vector<Group> groupsOf(plan::EndpointField stream) {
    std::vector<Group> groups;
    for (const std::uint8_t id : kIds) {
        const NetAddress endpoint = plan::announcedEndpoint(id, stream, 0);
        groups.push_back({net::transAddr(endpoint.ip), net::NtoHs(endpoint.port)});
    }
    return groups;
}

/// Seconds that all threads of a process have run.
double processorTimeOf(pid_t process) {
    double nanoseconds = 0;
    const auto tasks = std::filesystem::path("/proc") / std::to_string(process) / "task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        double one = 0;
        std::ifstream(task.path() / "schedstat") >> one;
        nanoseconds += one;
    }
    return nanoseconds * 1e-9;
}

std::string outputOf(const std::vector<std::string>& command) {
    lab::Process process({command});
    if (process.wait(60s) != 0)
        throw std::runtime_error(process.output());
    return process.output();
}

/// How many datagrams the file has of those endpoints.
double countIn(const std::string& file, const std::vector<Group>& groups) {
    double count = 0;
    const auto document = nlohmann::json::parse(outputOf({RADARCTL, "info", "--json", file}));
    for (const auto& stream : document["streams"])
        for (const Group& group : groups)
            if (stream["endpoint"]["address"] == group.address && stream["endpoint"]["port"] == group.port)
                count += stream["datagrams"].get<double>();
    return count;
}

/// @return microseconds of processor time a datagram, and the share that is missing in the file, %
std::vector<double> recordWith(lab::Lan& lan, const std::vector<std::string>& command,
                               const std::string& file) {
    std::filesystem::remove(file);
    const std::vector<Group> images = groupsOf(&RadarAddress::imageStream);
    bench::Source source(lan.node("host1"), images, kDatagram);
    bench::Source targets(lan.node("host1"), groupsOf(&RadarAddress::arpaStream), kDatagram);
    lab::Process recorder = lan.node("display").start({.command = command});
    const auto until = Clock::now() + 30s;
    do { // it has joined, or whatever it does to begin
        if (Clock::now() > until)
            throw std::runtime_error(recorder.output());
        targets.paced(100, 200ms);
    } while (!std::filesystem::exists(file) || std::filesystem::file_size(file) < 20 * kDatagram);
    std::this_thread::sleep_for(2s); // all 48 have answered
    const double before = processorTimeOf(recorder.pid());
    const auto sent = static_cast<double>(source.paced(kRate, bench::quick() ? 1s : 5s));
    std::this_thread::sleep_for(500ms);
    const double spent = processorTimeOf(recorder.pid()) - before;
    recorder.signal(SIGINT);
    recorder.wait(30s);
    return {spent * 1e6 / sent, 100 * (1 - countIn(file, images) / sent)};
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::display(1), lab::radarHost(1)});
    const bench::Child hosts(lan.node("host1"), [](const bench::Child::Wait& wait) -> std::vector<double> {
        std::deque<HostServer> servers;
        for (std::uint8_t id = 16; id <= 63; ++id)
            servers.emplace_back(("Radar " + std::to_string(id)).c_str(), id, 2U);
        wait();
        return {0};
    });
    const std::string file = "/run/recording.pcapng"; // of the private network
    const auto measurement = [&](const char* name, std::vector<std::string> command) {
        return bench::Measurement{
            name, [&lan, file, command = std::move(command)] { return recordWith(lan, command, file); }};
    };
    bench::takeTurns(
        {{"record/4 x 2000 datagrams of 1400 B a second", "us/datagram"}, {"record/missing", "%"}},
        {measurement("radarctl record", {RADARCTL, "record", "--interface", "eth0", "-o", file}),
         measurement("dumpcap", {"dumpcap", "-q", "-i", "eth0", "-w", file})},
        bench::fewRepetitions());
}
