// Discovery by raw sockets and by the library.

#include "discovery_implementations.h"

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/wire.h>

#include <arpa/inet.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace bench {

namespace {

using namespace std::chrono_literals;
using net::detail::Descriptor;

// not the library's port, so that neither implementation wakes the hosts of the other
constexpr unsigned short kRawPort = 6879;
constexpr auto kTimeOut = 1s;

double millisecondsSince(Clock::time_point start) {
    return Seconds(Clock::now() - start).count() * 1e3;
}

// --------------------------------------------------------------------------------------------------- raw

Descriptor rawSocket(const char* localIp) {
    Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
    const sockaddr_in group = socketAddress(wire::kDiscovery.address, kRawPort);
    const ip_mreq membership{group.sin_addr, socketAddress(localIp, 0).sin_addr};
    const bool ready = net::detail::setOption(socket, SOL_SOCKET, SO_RCVBUF, 256 * 1024) &&
                       net::detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, timeval{1, 0}) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_LOOP, 0) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, membership) &&
                       net::detail::setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership) &&
                       ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&group), sizeof group) == 0;
    if (!ready)
        throw std::system_error(errno, std::generic_category(), "raw socket");
    return socket;
}

void sendTo(const Descriptor& socket, const std::string& bytes) {
    const sockaddr_in group = socketAddress(wire::kDiscovery.address, kRawPort);
    ::sendto(socket.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&group),
             sizeof group);
}

/// Answers every query from a thread blocked in recvfrom, as HostServer does.
std::shared_ptr<void> rawHost(int number) {
    std::thread([socket = rawSocket("0.0.0.0"), answer = hostRecord(number)] {
        char buffer[1024];
        for (;;)
            if (::recv(socket.get(), buffer, sizeof buffer, 0) == 2)
                sendTo(socket, answer);
    }).detach(); // ends with the process
    return nullptr;
}

class RawFinder : public Finder {
public:
    double find(int hosts) override {
        const auto start = Clock::now();
        sendTo(m_socket, std::string(wire::text(wire::kQuery)));
        std::set<std::string> names;
        char buffer[1024];
        while (names.size() < static_cast<std::size_t>(hosts)) {
            if (::recv(m_socket.get(), buffer, sizeof buffer, 0) == -1)
                throw std::runtime_error("not all hosts found");
            names.insert(std::string(buffer + wire::kName.offset));
        }
        return millisecondsSince(start);
    }

private:
    const Descriptor m_socket = rawSocket(kFinderIp.c_str());
};

// ----------------------------------------------------------------------------------------------- library

std::shared_ptr<void> libraryHost(int number) {
    const auto id = static_cast<std::uint8_t>(number == 1 ? 1 : number + 14);
    return std::make_shared<HostServer>(("radar " + std::to_string(number)).c_str(), id, 2U);
}

std::atomic<std::int64_t> s_seconds = 0;

class LibraryFinder : public Finder {
public:
    LibraryFinder() {
        net::detail::setClock([] { return s_seconds.load(); });
        m_client.setLocalIP(::inet_addr(kFinderIp.c_str()));
        for (const auto end = Clock::now() + 5s; m_client.getRadar().empty() && Clock::now() < end;) {
            m_client.query();
            std::this_thread::sleep_for(20ms);
        }
    }
    double find(int hosts) override {
        s_seconds += 8; // the table starts empty
        const auto start = Clock::now();
        m_client.query();
        char names[kHosts][24];
        while (m_client.getRadar(names, kHosts) < hosts) {
            if (Clock::now() - start > kTimeOut)
                throw std::runtime_error("not all hosts found");
            std::this_thread::sleep_for(100us);
        }
        return millisecondsSince(start);
    }

private:
    MultiRadarClient m_client;
};

template <class Implementation>
std::unique_ptr<Finder> make() {
    return std::make_unique<Implementation>();
}

} // namespace

std::string hostRecord(int number) {
    std::string record(wire::kLongAnnouncement.length, '\0');
    record.replace(0, 2, wire::text(wire::kAnnouncement));
    const std::string name = "radar " + std::to_string(number);
    return record.replace(wire::kName.offset, name.size(), name);
}

const std::vector<DiscoveryImplementation>& discoveryImplementations() {
    static const std::vector<DiscoveryImplementation> implementations{
        {"raw", 11, false, rawHost, make<RawFinder>},
        {"library", 11, false, libraryHost, make<LibraryFinder>},
        cycloneDds(),
        gssdp(),
        czmqBeacon(),
        avahi()};
    return implementations;
}

} // namespace bench
