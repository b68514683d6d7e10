// A datagram through a radar::Stream, beside raw receive calls that ask for its time of arrival as well.

#include "bench.h"
#include "udp_source.h"

#include <RadarWatch/stream_private.h>

#include <net/if.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <thread>

namespace {

using bench::Child;
using bench::Group;
using bench::Seconds;
using bench::Source;
using bench::UdpPlan;
using net::detail::Descriptor;

const std::string kDisplayIp = "10.20.2.1";
constexpr std::size_t kDatagram = 222;
constexpr std::size_t kBuffer = 65536;
constexpr double kSaturated = 0; // a rate: as fast as possible

using Received = std::function<void(const char* data, std::size_t size, const std::timespec& arrival)>;

/// Something that receives, as long as it lives.
class Receiver {
public:
    virtual ~Receiver() = default;
};
using MakeReceiver = std::function<std::unique_ptr<Receiver>(const UdpPlan&, const Received&)>;

std::timespec timeIn(msghdr& message) {
    std::timespec time{};
    const cmsghdr* const control = CMSG_FIRSTHDR(&message);
    if (control != nullptr && control->cmsg_type == SCM_TIMESTAMPNS)
        std::memcpy(&time, CMSG_DATA(control), sizeof time);
    return time;
}

/// A thread a group, with recvmsg or recvmmsg.
class Raw : public Receiver {
public:
    Raw(const UdpPlan& plan, const Received& received, unsigned batch)
        : m_received(received), m_batch(batch) {
        for (const Group& group : plan.groups) {
            const Descriptor& socket = m_sockets.emplace_back(bench::rawGroupSocket(group, plan.localIp));
            if (!net::detail::setOption(socket, SOL_SOCKET, SO_TIMESTAMPNS, 1))
                throw std::runtime_error("SO_TIMESTAMPNS");
            m_threads.emplace_back([this, &socket] { run(socket); });
        }
    }
    ~Raw() override {
        m_running = false;
        for (const Descriptor& socket : m_sockets)
            net::detail::wakeReader(socket);
        for (std::thread& thread : m_threads)
            thread.join();
    }

private:
    void run(const Descriptor& socket) {
        const std::unique_ptr<char[]> memory(new char[kBuffer * m_batch]);
        std::vector<iovec> buffers(m_batch);
        std::vector<sockaddr_in> sources(m_batch);
        std::vector<mmsghdr> headers(m_batch);
        struct alignas(cmsghdr) Control {
            char bytes[64];
        };
        std::vector<Control> controls(m_batch);
        while (m_running) {
            for (unsigned i = 0; i < m_batch; ++i) {
                buffers[i] = {&memory[i * kBuffer], kBuffer};
                headers[i].msg_hdr = {&sources[i],
                                      sizeof sources[i],
                                      &buffers[i],
                                      1,
                                      controls[i].bytes,
                                      sizeof controls[i].bytes,
                                      0};
            }
            if (m_batch == 1) {
                const ssize_t size = ::recvmsg(socket.get(), &headers[0].msg_hdr, 0);
                if (size > 0)
                    m_received(memory.get(), static_cast<std::size_t>(size), timeIn(headers[0].msg_hdr));
                continue;
            }
            const int count = ::recvmmsg(socket.get(), headers.data(), m_batch, MSG_WAITFORONE, nullptr);
            for (int i = 0; i < count; ++i) {
                mmsghdr& header = headers[static_cast<std::size_t>(i)];
                if (header.msg_len > 0)
                    m_received(static_cast<const char*>(header.msg_hdr.msg_iov->iov_base), header.msg_len,
                               timeIn(header.msg_hdr));
            }
        }
    }

    const Received m_received;
    const unsigned m_batch;
    std::atomic<bool> m_running = true;
    std::deque<Descriptor> m_sockets;
    std::vector<std::thread> m_threads;
};

/// Knows where each radar is: its name is the number of its group.
class Engine : public radar::detail::Engine {
public:
    explicit Engine(const UdpPlan& plan) : m_plan(plan) {}
    void follow(const std::string& name, std::shared_ptr<radar::detail::Follower> follower) override {
        const Group& group = m_plan.groups[std::stoul(name)];
        radar::detail::Situation situation;
        situation.localAddress = bench::socketAddress(m_plan.localIp, 0).sin_addr.s_addr;
        situation.device = "eth0";
        situation.interfaceIndex = ::if_nametoindex("eth0");
        situation.radar.emplace().streams.resize(1);
        const sockaddr_in endpoint = bench::socketAddress(group.address, group.port);
        situation.radar->streams[0].imageStream = {endpoint.sin_addr.s_addr, endpoint.sin_port, 0};
        follower->onSituation(situation);
    }
    void unfollow(const radar::detail::Follower*) override {}

private:
    const UdpPlan m_plan;
};

enum class Way { Callback, Pool, Read };

class Streams : public Receiver {
public:
    Streams(const UdpPlan& plan, const Received& received, Way way) {
        const auto engine = std::make_shared<Engine>(plan);
        radar::StreamOptions options;
        if (way == Way::Pool)
            options.pool.emplace(radar::Pool::Options{1});
        const auto take = [received](const radar::Datagram& datagram) {
            const auto time = datagram.arrival.time_since_epoch();
            received(datagram.data, datagram.size,
                     {time / std::chrono::seconds(1), (time % std::chrono::seconds(1)).count()});
        };
        for (std::size_t i = 0; i < plan.groups.size(); ++i) {
            auto& stream = m_streams.emplace_back(
                radar::StreamDoor::stream(engine, std::to_string(i), radar::Image, options,
                                          way == Way::Read ? radar::Stream::OnDatagram() : take));
            if (way == Way::Read)
                m_threads.emplace_back([this, take, raw = stream.get()] {
                    radar::Datagram datagrams[radar::Stream::kMostAtOnce];
                    while (m_running) {
                        const std::size_t count =
                            raw->read(datagrams, std::size(datagrams), std::chrono::milliseconds(500));
                        for (std::size_t n = 0; n < count; ++n)
                            take(datagrams[n]);
                    }
                });
        }
    }
    ~Streams() override {
        m_running = false;
        for (std::thread& thread : m_threads)
            thread.join();
    }

private:
    std::deque<std::unique_ptr<radar::Stream>> m_streams;
    std::atomic<bool> m_running = true;
    std::vector<std::thread> m_threads;
};

/// Microseconds of processor time, and datagrams received.
std::vector<double> receiveInChild(const MakeReceiver& make, int groupCount, const Child::Wait& wait) {
    bench::pinToProcessor(0);
    std::atomic<long> count = 0;
    UdpPlan plan;
    plan.groups = bench::groups(groupCount);
    plan.localIp = kDisplayIp;
    const auto receiver = make(plan, [&](const char*, std::size_t, const std::timespec& arrival) {
        count.fetch_add(arrival.tv_sec > 0 ? 1 : 0, std::memory_order_relaxed);
    });
    const Seconds before = bench::processorTime();
    wait();
    return {(bench::processorTime() - before).count() * 1e6, static_cast<double>(count)};
}

void receive(lab::Lan& lan, const std::string& benchmark, int groupCount, double rate,
             const std::vector<std::pair<std::string, MakeReceiver>>& ways) {
    std::vector<bench::Measurement> measurements;
    for (const auto& [name, make] : ways)
        measurements.push_back(
            {name, [&lan, make = make, groupCount, rate]() -> std::vector<double> {
                 Source source(lan.node("host1"), bench::groups(groupCount), kDatagram);
                 Child child(lan.node("display"),
                             [&](const Child::Wait& wait) { return receiveInChild(make, groupCount, wait); });
                 if (rate == kSaturated) {
                     source.flood(bench::duration());
                     const std::vector<double> result = child.finish();
                     return {result[0] / std::max(result[1], 1.0)};
                 }
                 const auto sent = static_cast<double>(source.paced(rate, bench::duration()));
                 std::this_thread::sleep_for(std::chrono::milliseconds(20));
                 const std::vector<double> result = child.finish();
                 return {result[0] / std::max(result[1], 1.0), 100 * (1 - result[1] / sent)};
             }});
    std::vector<std::pair<std::string, std::string>> benchmarks{{benchmark, "us/datagram"}};
    if (rate != kSaturated)
        benchmarks.push_back({"lost, " + benchmark, "%"});
    bench::takeTurns(benchmarks, measurements);
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::display(1), lab::radarHost(1)});
    bench::pinToProcessor(1);
    const auto raw = [](unsigned batch) {
        return [batch](const UdpPlan& plan, const Received& received) -> std::unique_ptr<Receiver> {
            return std::make_unique<Raw>(plan, received, batch);
        };
    };
    const auto streams = [](Way way) {
        return [way](const UdpPlan& plan, const Received& received) -> std::unique_ptr<Receiver> {
            return std::make_unique<Streams>(plan, received, way);
        };
    };
    constexpr unsigned batch = 16;
    const std::pair<std::string, double> rates[] = {
        {"stream of 222 B at 20 k/s", 20e3},
        {"stream of 222 B at 100 k/s", 100e3},
        {"stream of 222 B, saturated", kSaturated},
    };
    for (const auto& [benchmark, rate] : rates)
        receive(lan, benchmark, 1, rate,
                {{"raw", raw(1)},
                 {"library", streams(Way::Callback)},
                 {"read", streams(Way::Read)},
                 {"recvmmsg", raw(batch)}});
    receive(lan, "50 streams at 20 k/s", 50, 20e3,
            {{"raw", raw(1)},
             {"library", streams(Way::Pool)},
             {"a thread each", streams(Way::Callback)},
             {"recvmmsg", raw(batch)}});
}
