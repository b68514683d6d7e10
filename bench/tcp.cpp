// Connections: streams, round trips, and one server's bytes to many clients.

#include "bench.h"
#include "tcp_implementations.h"

#include <UdpSocket/transport/tcp_stream.h>

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Child;
using bench::Clock;
using bench::Seconds;
using bench::Tcp;
using bench::TcpImplementation;
using bench::TcpPlan;
using net::detail::Descriptor;

const std::string kDisplayIp = "10.20.2.1";
const std::string kHostIp = "10.20.1.1";
constexpr unsigned short kPort = 6000;
constexpr std::size_t kChunk = 65536;
constexpr std::size_t kMessage = 1024;
constexpr std::size_t kRequest = 64;

Descriptor listen() {
    Descriptor socket = net::detail::openSocket(SOCK_STREAM);
    const sockaddr_in at = bench::socketAddress(kHostIp, kPort);
    if (!net::detail::setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1) ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0 ||
        ::listen(socket.get(), 1000) != 0)
        throw std::runtime_error("listen");
    return socket;
}

Descriptor accept(const Descriptor& listening) {
    Descriptor socket(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    net::detail::setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    net::detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, timeval{2, 0});
    return socket;
}

TcpPlan clientPlan() {
    TcpPlan plan;
    plan.ip = kHostIp;
    plan.port = kPort;
    return plan;
}

/// Megabytes a second that the client takes from a raw server, or gives to it.
void stream(lab::Lan& lan) {
    std::vector<bench::Measurement> measurements;
    for (const TcpImplementation& implementation : bench::tcpImplementations())
        measurements.push_back(
            {implementation.name, [&lan, implementation]() -> std::vector<double> {
                 const lab::Inside inside = lan.node("host1").enter();
                 const Descriptor listening = listen();
                 const auto client = [implementation](const Child::Wait& wait) -> std::vector<double> {
                     bench::pinToProcessor(0);
                     std::atomic<long> count = 0;
                     TcpPlan plan = clientPlan();
                     plan.received = [&](Tcp*, const char*, std::size_t size) {
                         count.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
                     };
                     const auto tcp = implementation.client(plan);
                     wait();
                     const auto taken = static_cast<double>(count);
                     const std::string bytes(kChunk, 'x');
                     double given = 0;
                     for (const auto end = Clock::now() + bench::duration() / 2; Clock::now() < end;
                          given += kChunk)
                         tcp->send(bytes.data(), bytes.size());
                     return {taken, given};
                 };
                 Child child(lan.node("display"), client);
                 const Descriptor socket = accept(listening);
                 const std::string bytes(kChunk, 'x');
                 for (const auto end = Clock::now() + bench::duration() / 2; Clock::now() < end;)
                     ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                 std::thread drain([&] {
                     const std::unique_ptr<char[]> buffer(new char[bench::kTcpBuffer]);
                     while (::recv(socket.get(), buffer.get(), bench::kTcpBuffer, 0) > 0) {
                     }
                 });
                 std::vector<double> result;
                 try {
                     result = child.finish();
                 } catch (...) {
                     net::detail::endStream(socket);
                     drain.join();
                     throw;
                 }
                 net::detail::endStream(socket);
                 drain.join();
                 const double scale = 1e-6 / (bench::duration().count() / 2);
                 return {result[0] * scale, result[1] * scale};
             }});
    bench::takeTurns({{"TCP stream received", "MB/s"}, {"TCP stream sent", "MB/s"}}, measurements);
}

void roundTrip(lab::Lan& lan) {
    std::vector<bench::Measurement> measurements;
    for (const TcpImplementation& implementation : bench::tcpImplementations())
        measurements.push_back(
            {implementation.name, [&lan, implementation]() -> std::vector<double> {
                 const lab::Inside inside = lan.node("host1").enter();
                 const Descriptor listening = listen();
                 Child child(lan.node("display"),
                             [implementation](const Child::Wait& wait) -> std::vector<double> {
                                 bench::pinToProcessor(0);
                                 TcpPlan plan = clientPlan();
                                 plan.received = [](Tcp* tcp, const char* data, std::size_t size) {
                                     tcp->send(data, size);
                                 };
                                 const auto tcp = implementation.client(plan);
                                 wait();
                                 return {0};
                             });
                 const Descriptor socket = accept(listening);
                 std::this_thread::sleep_for(10ms); // isConnected() comes just after the connection
                 std::vector<double> times;
                 char bytes[kRequest]{};
                 for (const auto end = Clock::now() + bench::duration(); Clock::now() < end;) {
                     const auto begin = Clock::now();
                     ::send(socket.get(), bytes, sizeof bytes, MSG_NOSIGNAL);
                     if (::recv(socket.get(), bytes, sizeof bytes, MSG_WAITALL) != sizeof bytes)
                         throw std::runtime_error("no answer");
                     times.push_back(Seconds(Clock::now() - begin).count() * 1e6);
                 }
                 child.finish();
                 return {bench::quantile(times, 0.5), bench::quantile(times, 0.99)};
             }});
    bench::takeTurns({{"TCP round trip, median", "us"}, {"TCP round trip, 99th percentile", "us"}},
                     measurements);
}

// ----------------------------------------------------------------------------------------- many clients

/// Shared memory in which the clients' process tells the server's what has arrived.
struct Arrivals {
    std::atomic<long> bytes = 0; // at the clients that read
    std::atomic<Clock::rep> last = 0;
};

Arrivals& sharedArrivals() {
    void* const memory =
        ::mmap(nullptr, sizeof(Arrivals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("mmap");
    return *new (memory) Arrivals;
}

/// @p count raw clients of which every @p stalledEvery-th does not read (0: all read).
std::vector<double> runClients(int count, int stalledEvery, Arrivals& arrivals, const Child::Wait& wait) {
    bench::pinToProcessor(1);
    const Descriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    std::vector<Descriptor> clients;
    const sockaddr_in to = bench::socketAddress(kDisplayIp, kPort);
    for (int i = 0; i < count; ++i) {
        const Descriptor& client = clients.emplace_back(net::detail::openSocket(SOCK_STREAM));
        const bool stalled = stalledEvery != 0 && i % stalledEvery == 0;
        if (stalled)
            net::detail::setOption(client, SOL_SOCKET, SO_RCVBUF, 4096);
        if (::connect(client.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
            throw std::runtime_error("connect");
        epoll_event event{EPOLLIN, {.fd = client.get()}};
        if (!stalled)
            ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, client.get(), &event);
    }
    std::thread([&] { // ends with the process
        const std::unique_ptr<char[]> buffer(new char[kChunk]);
        epoll_event events[64];
        for (;;) {
            const int ready = ::epoll_wait(epoll.get(), events, 64, -1);
            for (int i = 0; i < ready; ++i) {
                const ssize_t size = ::recv(events[i].data.fd, buffer.get(), kChunk, MSG_DONTWAIT);
                if (size > 0) {
                    arrivals.last = Clock::now().time_since_epoch().count();
                    arrivals.bytes += size;
                } else if (size == 0) {
                    ::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, events[i].data.fd, nullptr);
                }
            }
        }
    })
        .detach();
    wait();
    std::_Exit(0);
}

TcpPlan serverPlan() {
    TcpPlan plan;
    plan.ip = kDisplayIp;
    plan.port = kPort;
    return plan;
}

/// One call that sends a message to all: microseconds until it returns, and of processor time.
std::vector<double> fanOut(lab::Lan& lan, const TcpImplementation& implementation, int clients) {
    Arrivals& arrivals = sharedArrivals();
    Child server(lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
        bench::pinToProcessor(0);
        const auto tcp = implementation.server(serverPlan());
        wait();
        tcp->awaitPeers(clients);
        const std::string bytes(kMessage, 'x');
        std::vector<double> times;
        Seconds spent{};
        long expected = arrivals.bytes;
        for (const auto end = Clock::now() + bench::duration() / 2; Clock::now() < end;) {
            const Seconds before = bench::processorTime();
            const auto begin = Clock::now();
            tcp->send(bytes.data(), bytes.size());
            times.push_back(Seconds(Clock::now() - begin).count() * 1e6);
            spent += bench::processorTime() - before;
            expected += static_cast<long>(clients * kMessage);
            while (arrivals.bytes < expected && Clock::now() < end) // all have caught up before the next call
                std::this_thread::sleep_for(50us);
        }
        return {bench::quantile(times, 0.5), spent.count() * 1e6 / static_cast<double>(times.size())};
    });
    const Child peers(lan.node("host1"),
                      [&](const Child::Wait& wait) { return runClients(clients, 0, arrivals, wait); });
    const std::vector<double> result = server.finish();
    ::munmap(&arrivals, sizeof arrivals);
    return result;
}

void sendToAll(lab::Lan& lan, const std::string& benchmark, int clients,
               const std::vector<TcpImplementation>& implementations, int times) {
    std::vector<bench::Measurement> measurements;
    for (const TcpImplementation& implementation : implementations)
        measurements.push_back(
            {implementation.name, [&lan, implementation, clients]() -> std::vector<double> {
                 return fanOut(lan, implementation, clients);
             }});
    bench::takeTurns({{benchmark, "us"}, {"cost, " + benchmark, "us"}}, measurements, times);
}

/// Until when the 95 that read have a message that 5 others do not read, and when the call returns.
void sendPastStalled(lab::Lan& lan) {
    constexpr int kClients = 100;
    constexpr int kStalledEvery = 20;
    constexpr long kReading = kClients - kClients / kStalledEvery;
    std::vector<bench::Measurement> measurements;
    // The competitors wait for a stalled client as the raw loop does; the last is what the system takes by
    // itself.
    std::vector<TcpImplementation> implementations(bench::tcpImplementations().begin(),
                                                   bench::tcpImplementations().begin() + 2);
    implementations.push_back({"raw, not waiting", nullptr, bench::makeRawNonBlockingServer});
    for (const TcpImplementation& implementation : implementations) {
        measurements.push_back(
            {implementation.name, [&lan, implementation]() -> std::vector<double> {
                 Arrivals& arrivals = sharedArrivals();
                 Child server(lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
                     bench::pinToProcessor(0);
                     const auto tcp = implementation.server(serverPlan());
                     wait();
                     tcp->awaitPeers(kClients);
                     const std::string filling(kChunk, 'x');
                     const auto giveUp = Clock::now() + (implementation.client ? 20s : 2s);
                     for (bool full = false; !full && Clock::now() < giveUp;) {
                         const auto begin = Clock::now();
                         tcp->send(filling.data(), filling.size());
                         full = Clock::now() - begin > 400ms;
                     }
                     std::this_thread::sleep_for(300ms);
                     const long expected = arrivals.bytes + kReading * static_cast<long>(kMessage);
                     const auto begin = Clock::now();
                     tcp->send(filling.data(), kMessage);
                     const double call = Seconds(Clock::now() - begin).count() * 1e3;
                     while (arrivals.bytes < expected && Clock::now() < begin + 3s)
                         std::this_thread::sleep_for(1ms);
                     const Clock::time_point last{Clock::duration(arrivals.last)};
                     return {Seconds(last - begin).count() * 1e3, call};
                 });
                 const Child peers(lan.node("host1"), [&](const Child::Wait& wait) {
                     return runClients(kClients, kStalledEvery, arrivals, wait);
                 });
                 const std::vector<double> result = server.finish();
                 ::munmap(&arrivals, sizeof arrivals);
                 return result;
             }});
    }
    bench::takeTurns({{"TCP server, 5 of 100 stalled, the others have it", "ms"},
                      {"TCP server, 5 of 100 stalled, the call returns", "ms"}},
                     measurements, bench::repetitions());
}

/// How many messages a second the 99 get that read, beside one that never does.
void sendBesideStarved(lab::Lan& lan) {
    constexpr int kClients = 100;
    const auto measurement = [&lan](const char* name, std::unique_ptr<Tcp> (*server)(const TcpPlan&)) {
        const auto measure = [&lan, server]() -> std::vector<double> {
            Arrivals& arrivals = sharedArrivals();
            Child sending(lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
                bench::pinToProcessor(0);
                const auto tcp = server(serverPlan());
                wait();
                tcp->awaitPeers(kClients);
                const std::string bytes(kMessage, 'x');
                const auto run = [&](Seconds time) { // messages a second, each awaited by those that read
                    const auto begin = Clock::now();
                    long messages = 0;
                    for (; Clock::now() - begin < time; ++messages) {
                        const long expected = arrivals.bytes + (kClients - 1) * static_cast<long>(kMessage);
                        tcp->send(bytes.data(), bytes.size());
                        while (arrivals.bytes < expected && Clock::now() - begin < time + 1s)
                            std::this_thread::sleep_for(50us);
                    }
                    return static_cast<double>(messages) / Seconds(Clock::now() - begin).count();
                };
                run(bench::quick() ? 2s : 3s); // its buffers are full, and the server knows it
                return {run(bench::duration() * 5) / 1e3};
            });
            const Child peers(lan.node("host1"), [&](const Child::Wait& wait) {
                return runClients(kClients, kClients, arrivals, wait);
            });
            const std::vector<double> result = sending.finish();
            ::munmap(&arrivals, sizeof arrivals);
            return result;
        };
        return bench::Measurement{name, measure};
    };
    bench::takeTurns({{"TCP server, 1 of 100 never reads, messages to the others", "thousand/s"}},
                     {measurement("raw", bench::makeRawNonBlockingServer),
                      measurement("library", bench::tcpImplementations()[1].server)},
                     bench::fewRepetitions());
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::display(1), lab::radarHost(1)});
    bench::pinToProcessor(1);
    stream(lan);
    roundTrip(lan);
    for (const int clients : {1, 10, 100, 500})
        sendToAll(lan, "TCP server, 1 KiB to " + std::to_string(clients), clients,
                  bench::tcpImplementations(), bench::repetitions());
    const std::vector<TcpImplementation> two(bench::tcpImplementations().begin(),
                                             bench::tcpImplementations().begin() + 2);
    for (const int clients : {1, 50, 200, 400, 600, 800, 1000})
        sendToAll(lan, "growth/TCP clients/" + std::to_string(clients), clients, two,
                  bench::fewRepetitions());
    sendPastStalled(lan);
    sendBesideStarved(lan);
}
