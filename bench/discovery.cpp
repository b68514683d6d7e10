// Time from a query to the last of 49 two-stream hosts: the library beside raw sockets doing the same
// exchange, on one virtual LAN, taking turns.

#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/wire.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>

#include <lab/lan.h>
#include <lab/private_network.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using net::detail::Descriptor;

constexpr int kHosts = 49;
constexpr int kRepetitions = 40;
constexpr unsigned short kRawPort =
    6879; // beside the library's port, so that neither side wakes the other's hosts
constexpr auto kGiveUp = 1s;

sockaddr_in address(const char* ip, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = ::inet_addr(ip);
    return result;
}

Descriptor rawSocket(const char* localIp) {
    Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
    const sockaddr_in group = address(wire::kDiscovery.address, kRawPort);
    const ip_mreq membership{group.sin_addr, address(localIp, 0).sin_addr};
    const bool ready = net::detail::setOption(socket, SOL_SOCKET, SO_RCVBUF, 256 * 1024) &&
                       net::detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, timeval{1, 0}) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 0) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, membership) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership) &&
                       ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&group), sizeof group) == 0;
    if (!ready)
        std::perror("raw socket");
    return socket;
}

void sendTo(const Descriptor& socket, const std::string& bytes) {
    const sockaddr_in group = address(wire::kDiscovery.address, kRawPort);
    if (::sendto(socket.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                 sizeof group) == -1)
        std::perror("sendto");
}

/// Answers every query from a thread blocked in recvfrom, as HostServer does.
class RawHost {
public:
    RawHost(const lab::Node& node, int number) : m_answer(wire::kLongAnnouncement.length, '\0') {
        m_answer.replace(0, 2, wire::text(wire::kAnnouncement));
        m_answer.replace(2, 2, std::to_string(number));
        const lab::Inside inside = node.enter();
        m_socket = rawSocket("0.0.0.0");
        m_thread = std::thread([this] {
            char buffer[1024];
            while (m_running)
                if (::recv(m_socket.get(), buffer, sizeof buffer, 0) == 2)
                    sendTo(m_socket, m_answer);
        });
    }
    ~RawHost() {
        m_running = false;
        m_socket.wakeReader();
        m_thread.join();
    }

private:
    std::string m_answer;
    Descriptor m_socket;
    std::atomic<bool> m_running = true;
    std::thread m_thread;
};

double milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

double rawExchange(const Descriptor& display) {
    const auto start = Clock::now();
    sendTo(display, std::string(wire::text(wire::kQuery)));
    std::set<std::string> names;
    char buffer[1024];
    while (names.size() < kHosts) {
        const ssize_t count = ::recv(display.get(), buffer, sizeof buffer, 0);
        if (count == -1)
            return -1;
        names.insert(std::string(buffer + wire::kName.offset));
    }
    return milliseconds(Clock::now() - start);
}

std::atomic<std::int64_t> s_seconds = 0;

double libraryExchange(MultiRadarClient& client) {
    s_seconds += 8; // the table starts empty
    const auto start = Clock::now();
    client.query();
    char names[kHosts][24];
    while (client.getRadar(names, kHosts) < kHosts) {
        if (Clock::now() - start > kGiveUp)
            return -1;
        std::this_thread::sleep_for(20us);
    }
    return milliseconds(Clock::now() - start);
}

struct Series {
    std::vector<double> times;
    int incomplete = 0;

    void add(double time) {
        if (time < 0)
            ++incomplete;
        else
            times.push_back(time);
    }
    double quantile(double share) {
        std::sort(times.begin(), times.end());
        return times.empty() ? 0
                             : times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
    }
    void print(const char* name) {
        std::fprintf(stderr, "%-10s median %6.2f ms   quartiles %6.2f to %6.2f ms   incomplete %d of %d\n",
                     name, quantile(0.5), quantile(0.25), quantile(0.75), incomplete, kRepetitions);
    }
};

} // namespace

int main() {
    lab::enterPrivateNetwork();
    if (std::freopen("/dev/null", "w", stdout) == nullptr) // the library's diagnostics
        return 1;
    std::vector<lab::NodePlan> plans{lab::display(1)};
    for (int number = 1; number <= kHosts; ++number)
        plans.push_back(lab::radarHost(number));
    lab::Lan lan(plans);

    std::vector<std::unique_ptr<HostServer>> hosts;
    std::vector<std::unique_ptr<RawHost>> rawHosts;
    for (int number = 1; number <= kHosts; ++number) {
        const lab::Node& node = lan.node("host" + std::to_string(number));
        const lab::Inside inside = node.enter();
        const auto id = static_cast<std::uint8_t>(number == 1 ? 1 : number + 14);
        hosts.push_back(std::make_unique<HostServer>(("radar " + std::to_string(number)).c_str(), id, 2U));
        rawHosts.push_back(std::make_unique<RawHost>(node, number));
    }

    const lab::Inside inside = lan.node("display").enter();
    const std::string localIp = "10.20.2.1";
    const Descriptor rawDisplay = rawSocket(localIp.c_str());
    net::detail::setClock([] { return s_seconds.load(); });
    MultiRadarClient client;
    client.setLocalIP(::inet_addr(localIp.c_str()));
    for (const auto end = Clock::now() + 5s; client.getRadar().size() < kHosts && Clock::now() < end;) {
        client.query();
        std::this_thread::sleep_for(100ms);
    }

    Series library;
    Series raw;
    for (int repetition = 0; repetition < kRepetitions; ++repetition) {
        raw.add(rawExchange(rawDisplay));
        library.add(libraryExchange(client));
    }
    std::fprintf(stderr, "query to the last of %d announcements, %d repetitions each, taking turns\n", kHosts,
                 kRepetitions);
    raw.print("raw");
    library.print("library");
    std::fprintf(stderr, "ratio      %.2f\n", library.quantile(0.5) / raw.quantile(0.5));
    return library.incomplete == 0 && raw.incomplete == 0 ? 0 : 1;
}
