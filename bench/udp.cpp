// Datagrams: receiving, sending and round trips, by the library, raw system calls and competitors.

#include "bench.h"
#include "udp_implementations.h"
#include "udp_source.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace {

using bench::Child;
using bench::Clock;
using bench::Group;
using bench::groups;
using bench::kHostIp;
using bench::Seconds;
using bench::Source;
using bench::Udp;
using bench::UdpImplementation;
using bench::UdpPlan;
using net::detail::Descriptor;

const std::string kDisplayIp = "10.20.2.1";
constexpr std::size_t kAnnouncement = 222;
constexpr std::size_t kImageLine = 1400;

/// The receiving side as a process of its own: microseconds of processor time, and datagrams received.
std::vector<double> receiveInChild(const UdpImplementation& implementation, int groupCount,
                                   const Child::Wait& wait) {
    bench::pinToProcessor(0);
    std::atomic<long> count = 0;
    UdpPlan plan;
    plan.groups = groups(groupCount);
    plan.localIp = kDisplayIp;
    plan.received = [&](Udp*, const char*, std::size_t) { count.fetch_add(1, std::memory_order_relaxed); };
    const auto udp = implementation.make(plan);
    const Seconds before = bench::processorTime();
    wait();
    return {(bench::processorTime() - before).count() * 1e6, static_cast<double>(count)};
}

void receivePaced(lab::Lan& lan, const std::string& benchmark, int groupCount, double rate,
                  const std::vector<UdpImplementation>& implementations, int times = bench::repetitions()) {
    std::vector<bench::Measurement> measurements;
    for (const UdpImplementation& implementation : implementations)
        measurements.push_back(
            {implementation.name, [&lan, implementation, groupCount, rate]() -> std::vector<double> {
                 Source source(lan.node("host1"), groups(groupCount), kAnnouncement);
                 Child child(lan.node("display"), [&](const Child::Wait& wait) {
                     return receiveInChild(implementation, groupCount, wait);
                 });
                 const auto sent = static_cast<double>(source.paced(rate, bench::duration()));
                 std::this_thread::sleep_for(std::chrono::milliseconds(20));
                 const std::vector<double> result = child.finish();
                 return {result[0] / std::max(result[1], 1.0), 100 * (1 - result[1] / sent)};
             }});
    bench::takeTurns({{benchmark, "us/datagram"}, {"lost, " + benchmark, "%"}}, measurements, times);
}

void receiveSaturated(lab::Lan& lan, const std::string& benchmark, std::size_t size) {
    std::vector<bench::Measurement> measurements;
    for (const UdpImplementation& implementation : bench::udpImplementations())
        measurements.push_back(
            {implementation.name, [&lan, implementation, size]() -> std::vector<double> {
                 Source source(lan.node("host1"), groups(1), size);
                 Child child(lan.node("display"), [&](const Child::Wait& wait) {
                     return receiveInChild(implementation, 1, wait);
                 });
                 source.flood(bench::duration());
                 const std::vector<double> result = child.finish();
                 return {result[1] / bench::duration().count() / 1000, result[0] / std::max(result[1], 1.0)};
             }});
    bench::takeTurns({{benchmark, "thousand/s"}, {"cost, " + benchmark, "us/datagram"}}, measurements);
}

/// How much processor time a datagram costs its sender.
void send(lab::Lan& lan, const std::string& benchmark, std::size_t batch) {
    std::vector<bench::Measurement> measurements;
    for (const UdpImplementation& implementation : bench::udpImplementations()) {
        const auto work = [implementation, batch](const Child::Wait& wait) -> std::vector<double> {
            bench::pinToProcessor(0);
            UdpPlan plan;
            plan.destination = {"236.1.2.200", 5200};
            plan.localIp = kDisplayIp;
            const auto udp = implementation.make(plan);
            const std::string bytes(kAnnouncement, 'x');
            const bench::Datagrams datagrams(batch, {bytes.data(), static_cast<int>(bytes.size())});
            wait();
            const Seconds before = bench::processorTime();
            double sent = 0;
            for (const auto end = Clock::now() + bench::duration() / 2; Clock::now() < end;)
                for (int i = 0; i < 64; i += static_cast<int>(batch), sent += static_cast<double>(batch))
                    batch == 1 ? udp->send(bytes.data(), bytes.size()) : udp->sendMany(datagrams);
            return {(bench::processorTime() - before).count() * 1e6 / sent};
        };
        measurements.push_back(
            {implementation.name, [&lan, work] { return Child(lan.node("display"), work).finish(); }});
    }
    bench::takeTurns({{benchmark, "us/datagram"}}, measurements);
}

/// A datagram to a group, and the answer that comes to another.
void roundTrip(lab::Lan& lan) {
    const Group there{"236.1.2.1", 5000};
    const Group back{"236.1.2.2", 5001};
    std::vector<bench::Measurement> measurements;
    for (const UdpImplementation& implementation : bench::udpImplementations()) {
        const auto answer = [implementation, there, back](const Child::Wait& wait) -> std::vector<double> {
            bench::pinToProcessor(0);
            UdpPlan plan;
            plan.groups = {there};
            plan.destination = back;
            plan.localIp = kDisplayIp;
            plan.received = [](Udp* udp, const char* data, std::size_t size) { udp->send(data, size); };
            const auto udp = implementation.make(plan);
            wait();
            return {0};
        };
        measurements.push_back(
            {implementation.name, [&lan, answer, there, back]() -> std::vector<double> {
                 Child child(lan.node("display"), answer);
                 const lab::Inside inside = lan.node("host1").enter();
                 const Descriptor receiver = bench::rawGroupSocket(back, kHostIp);
                 net::detail::setOption(receiver, SOL_SOCKET, SO_RCVTIMEO, timeval{0, 100000});
                 const Descriptor sender = net::detail::openSocket(SOCK_DGRAM);
                 net::detail::setOption(sender, IPPROTO_IP, IP_MULTICAST_IF,
                                        bench::socketAddress(kHostIp, 0).sin_addr);
                 const sockaddr_in to = bench::socketAddress(there.address, there.port);
                 std::vector<double> times;
                 char bytes[kAnnouncement]{};
                 for (const auto end = Clock::now() + bench::duration(); Clock::now() < end;) {
                     const auto begin = Clock::now();
                     ::sendto(sender.get(), bytes, sizeof bytes, 0, reinterpret_cast<const sockaddr*>(&to),
                              sizeof to);
                     if (::recv(receiver.get(), bytes, sizeof bytes, 0) > 0)
                         times.push_back(Seconds(Clock::now() - begin).count() * 1e6);
                 }
                 if (times.size() < 100)
                     throw std::runtime_error("no answers");
                 child.finish();
                 return {bench::quantile(times, 0.5), bench::quantile(times, 0.99)};
             }});
    }
    bench::takeTurns({{"UDP round trip, median", "us"}, {"UDP round trip, 99th percentile", "us"}},
                     measurements, 4 * bench::repetitions());
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::display(1), lab::radarHost(1)});
    bench::pinToProcessor(1);
    const std::vector<UdpImplementation>& implementations = bench::udpImplementations();
    receivePaced(lan, "receive 222 B at 20 k/s", 1, 20e3, implementations);
    receivePaced(lan, "receive 222 B at 100 k/s", 1, 100e3, implementations);
    receiveSaturated(lan, "receive saturated 222 B", kAnnouncement);
    receiveSaturated(lan, "receive saturated 1400 B", kImageLine);
    const UdpImplementation loop{"raw event loop", bench::makeRawLoop};
    std::vector<UdpImplementation> more = implementations;
    more.insert(more.end(), {loop, {"raw with time-out", bench::makeRawWithTimeOut}});
    receivePaced(lan, "receive 50 groups at 20 k/s", 50, 20e3, more, 2 * bench::repetitions());
    for (const int receivers : {1, 25, 50, 100, 200})
        receivePaced(lan, "growth/receivers/" + std::to_string(receivers), receivers, 20e3,
                     {implementations[0], implementations[1], loop}, bench::fewRepetitions());
    send(lan, "send 222 B", 1);
    send(lan, "send 64 x 222 B in one call", 64);
    roundTrip(lan);
}
