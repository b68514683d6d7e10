// How soon a display that is started knows its radar, and what one has that knows 49 and receives six
// streams.

#include "bench.h"
#include "udp_implementations.h"

#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Child;
using bench::Clock;
using bench::Seconds;

constexpr const char* kDisplayAddress = "10.20.2.1";
constexpr int kRadars = 49;
constexpr int kStreams = 6;

template <class Condition>
void await(Condition condition) {
    for (const auto end = Clock::now() + 60s; !condition();) {
        if (Clock::now() > end)
            throw std::runtime_error("nothing came");
        std::this_thread::sleep_for(200us);
    }
}

/// Milliseconds from the start of a process until @p settle returns in it.
bench::Measurement startUp(lab::Lan& lan, const char* implementation, std::function<void()> settle) {
    return {implementation, [&lan, settle = std::move(settle)] {
                return Child(lan.node("display"),
                             [&](const Child::Wait& wait) -> std::vector<double> {
                                 const auto begin = Clock::now();
                                 settle();
                                 const Seconds took = Clock::now() - begin;
                                 wait();
                                 return {took.count() * 1e3};
                             })
                    .finish();
            }};
}

/// Joins the group, asks, and waits for an answer: what the protocol itself needs.
void settleRaw() {
    const std::string local = kDisplayAddress;
    const auto socket = bench::rawGroupSocket({wire::kDiscovery.address, wire::kDiscovery.port}, local);
    net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, bench::socketAddress(local, 0).sin_addr);
    net::detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, timeval{0, 100000});
    const sockaddr_in group = bench::socketAddress(wire::kDiscovery.address, wire::kDiscovery.port);
    const std::string_view query = wire::text(wire::kQuery);
    char answer[1024];
    for (;;) {
        ::sendto(socket.get(), query.data(), query.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                 sizeof group);
        if (::recv(socket.get(), answer, sizeof answer, 0) > 100)
            return;
    }
}

void settleClient(unsigned local) {
    MultiRadarClient* const client = MultiRadarClient::getInstance(); // stands until the process ends
    if (local != 0)
        client->setLocalIP(local);
    Clock::time_point asked; // long ago
    await([&] {
        if (Clock::now() - asked > 10ms) {
            client->query();
            asked = Clock::now();
        }
        return !client->getRadar().empty();
    });
}

void settleWatch(unsigned local) {
    radar::Watch watch(radar::Watch::Options{local});
    await([&] {
        const auto event = watch.next(1s);
        return event && event->kind == radar::Event::Kind::Appeared;
    });
}

void startUp(lab::Lan& lan) {
    const unsigned local = net::transAddr(kDisplayAddress);
    bench::takeTurns({{"display/configured, until the radar is known", "ms"}},
                     {startUp(lan, "raw", settleRaw),
                      startUp(lan, "MultiRadarClient", [=] { settleClient(local); }),
                      startUp(lan, "radar::Watch", [=] { settleWatch(local); })});
    // Where no beacon is heard: a period of listening for one, the joins, and the answers.
    const auto timing = net::detail::timing().search;
    const auto least = Seconds(timing.beacons + timing.join + timing.answers).count() * 1e3;
    const char* const searched = "display/searched, until the radar is known";
    bench::takeTurns({{searched, "ms"}},
                     {startUp(lan, "MultiRadarClient", [] { settleClient(0); }),
                      startUp(lan, "radar::Watch", [] { settleWatch(0); })},
                     bench::fewRepetitions());
    bench::record(searched, "the search's own periods", "ms", {least});
}

double fieldOf(pid_t process, const char* file, const std::string& field) {
    std::ifstream lines(std::filesystem::path("/proc") / std::to_string(process) / file);
    for (std::string name; lines >> name;)
        if (double value = 0; name == field + ":" && lines >> value)
            return value;
    throw std::runtime_error("no " + field);
}

std::string nameOf(int number) {
    return "Radar " + std::to_string(number);
}

/// @param make returns what stands, and is given up at the end
template <class Make>
bench::Measurement standing(lab::Lan& lan, const char* implementation, Make make) {
    return {implementation, [&lan, make] {
                Child child(lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
                    const auto stands = make();
                    wait();
                    return {0};
                });
                const std::vector<double> figures{fieldOf(child.pid(), "status", "Threads"),
                                                  fieldOf(child.pid(), "smaps_rollup", "Private_Dirty")};
                child.finish();
                return figures;
            }};
}

struct Nobody : net::iUdpDataListener {
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override {}
};

struct ClientAndReceivers {
    MultiRadarClient client;
    Nobody listener;
    std::deque<net::UdpReceiver> receivers;
};

std::unique_ptr<ClientAndReceivers> makeClient() {
    auto made = std::make_unique<ClientAndReceivers>();
    const unsigned local = net::transAddr(kDisplayAddress);
    made->client.setLocalIP(local);
    await([&] {
        made->client.query();
        std::this_thread::sleep_for(100ms);
        return made->client.getRadar().size() >= kRadars;
    });
    for (int i = 0; i < kStreams; ++i) {
        const NetAddress group = made->client.getAddress(nameOf(i).c_str(), 0)->imageStream;
        made->receivers.emplace_back(&made->listener, local, net::transAddr(group.ip), net::NtoHs(group.port),
                                     65536);
    }
    return made;
}

struct WatchAndStreams {
    explicit WatchAndStreams(unsigned local) : watch(radar::Watch::Options{local}) {}
    radar::Watch watch;
    std::deque<radar::Stream> streams;
};

std::unique_ptr<WatchAndStreams> makeWatch(const radar::StreamOptions& options) {
    auto made = std::make_unique<WatchAndStreams>(net::transAddr(kDisplayAddress));
    await([&] {
        made->watch.next(100ms);
        return made->watch.radars().size() >= kRadars;
    });
    for (int i = 0; i < kStreams; ++i)
        made->streams.emplace_back(
            made->watch, nameOf(i), radar::Image, [](const radar::Datagram&) {}, radar::Stream::OnEvent(),
            options);
    return made;
}

void memory(lab::Lan& lan) {
    const auto pooled = [] {
        radar::StreamOptions options;
        options.pool.emplace(radar::Pool::Options{1});
        return options;
    };
    const std::string display = "display/49 radars and 6 streams, ";
    bench::takeTurns(
        {{display + "threads", "threads"}, {display + "private memory", "KiB"}},
        {standing(lan, "MultiRadarClient, 6 UdpReceivers", makeClient),
         standing(lan, "radar::Watch, 6 Streams", [] { return makeWatch({}); }),
         standing(lan, "radar::Watch, 6 Streams in a pool", [=] { return makeWatch(pooled()); })},
        bench::fewRepetitions());
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    const auto hosts = [&](int count) {
        return Child(lan.node("host1"), [count](const Child::Wait& wait) -> std::vector<double> {
            std::deque<HostServer> servers;
            for (int i = 0; i < count; ++i) // 15 further ids would be past the plan's end
                servers.emplace_back(nameOf(i).c_str(), static_cast<std::uint8_t>(i == 0 ? 1 : 15 + i), 2U);
            wait();
            return {0};
        });
    };
    {
        const Child one = hosts(1);
        startUp(lan);
    }
    const Child all = hosts(kRadars);
    memory(lan);
}
