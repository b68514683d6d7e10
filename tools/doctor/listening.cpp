#include "../plan.h"
#include "socket.h"

#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string_view>
#include <system_error>

namespace doctor {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view kQuery = "\x01\xB1";
constexpr std::string_view kAnnouncement = "\x01\xB2";
constexpr std::string_view kProbe = "\x01\xA1";
constexpr std::string_view kObjection = "\x03\xA1";
constexpr std::string_view kBeacon = "aabbccdd";
constexpr std::size_t kMostHosts = 1000; // that are kept, and addresses: anybody may send anything
constexpr std::size_t kMostQueries = 100000;
constexpr int kMostAtOnce = 1000; // datagrams, before the clock and the signals are looked at again
constexpr int kWantedBuffer = 256 * 1024;

/// Positions in an announcement.
constexpr std::size_t kName = 2;
constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kImage = 88;
constexpr std::size_t arpaOf(std::size_t length) {
    return length == 222 ? 160 : 124;
}

bool isAnnouncement(std::string_view datagram) {
    return (datagram.size() == 150 || datagram.size() == 222) && datagram.starts_with(kAnnouncement);
}

template <class Number>
Number numberAt(std::string_view bytes, std::size_t offset) {
    Number number;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

int idOf(std::string_view announcement) {
    RadarAddress record{};
    record.arpaStream.port = numberAt<unsigned short>(announcement, arpaOf(announcement.size()) + 4);
    return hostIdOf(record);
}

/// Everything that is open on one interface.
class Station {
public:
    Station(const Interface& interface, Listening& listening, bool quick)
        : m_interface(interface), m_listening(listening), m_ear(listening.ears[interface.index]) {
        for (std::size_t i = 0; i < kGroups.size(); ++i)
            m_ear.joinErrors[i] = join(i);
        m_sender = Socket(AF_INET, SOCK_DGRAM, 0);
        const ip_mreqn way{{}, {interface.addresses.front().ip}, interface.index};
        const int on = 1;
        socklen_t length = sizeof m_own;
        if (!m_sender.isOpen() || !m_sender.set(IPPROTO_IP, IP_MULTICAST_IF, way) ||
            !m_sender.set(IPPROTO_IP, IP_MULTICAST_LOOP, on) ||
            !m_sender.bind(interface.addresses.front().ip, 0) ||
            ::getsockname(m_sender.get(), reinterpret_cast<sockaddr*>(&m_own), &length) != 0)
            m_ear.sendError = errno;
        if (!quick)
            m_wire = openWire(interface.index);
        m_ear.wire = m_wire.isOpen();
    }

    void query() {
        if (m_ear.sendError != 0)
            return;
        sockaddr_in group{};
        group.sin_family = AF_INET;
        group.sin_addr.s_addr = net::transAddr(kGroups[0].address);
        group.sin_port = htons(kGroups[0].port);
        if (::sendto(m_sender.get(), kQuery.data(), kQuery.size(), 0,
                     reinterpret_cast<const sockaddr*>(&group), sizeof group) == -1)
            m_ear.sendError = errno;
        else
            ++m_ear.sent;
    }

    void drain(Seconds start) {
        Datagram datagram;
        for (std::size_t i = 0; i < kGroups.size(); ++i)
            for (int n = 0; n < kMostAtOnce && m_sockets[i].isOpen() && receive(m_sockets[i], datagram);
                 ++n) {
                sockaddr_in from;
                std::memcpy(&from, &datagram.from, sizeof from);
                take(datagram.bytes, from, datagram.received - start);
            }
        for (int n = 0; n < kMostAtOnce && m_wire.isOpen() && receive(m_wire, datagram); ++n)
            look(datagram.bytes);
    }

private:
    /// @return the error of binding to or joining a group, 0 when it listens
    int join(std::size_t i) {
        const unsigned int ip = net::transAddr(kGroups[i].address);
        Socket socket(AF_INET, SOCK_DGRAM, 0);
        const int on = 1;
        const int off = 0;
        const ip_mreqn membership{{ip}, {m_interface.addresses.front().ip}, m_interface.index};
        if (!socket.isOpen() || !socket.set(SOL_SOCKET, SO_REUSEADDR, on) ||
            !socket.bind(ip, kGroups[i].port))
            return errno;
        m_ear.bound[i] = true;
        if (!socket.set(SOL_SOCKET, SO_RCVBUF, kWantedBuffer) || !socket.set(SOL_SOCKET, SO_TIMESTAMP, on) ||
            !socket.set(IPPROTO_IP, IP_MULTICAST_ALL, off) ||
            !socket.set(IPPROTO_IP, IP_ADD_MEMBERSHIP, membership))
            return errno;
        int granted = 0;
        socklen_t length = sizeof granted;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &granted, &length) == 0)
            m_listening.grantedBuffer = granted / 2; // the system counts its own room in
        m_sockets[i] = std::move(socket);
        return 0;
    }

    void take(std::string_view bytes, const sockaddr_in& from, Seconds time) {
        const unsigned int source = from.sin_addr.s_addr;
        if (bytes == kQuery) {
            if (source == m_own.sin_addr.s_addr && from.sin_port == m_own.sin_port)
                ++m_ear.looped;
            else if (m_listening.foreignQueries.size() < kMostQueries)
                m_listening.foreignQueries.push_back({m_interface.index, source, time});
        } else if (bytes == kBeacon) {
            ++m_listening.beacons;
        } else if (bytes.size() == 4 && bytes.starts_with(kProbe)) {
            if (m_listening.claims.size() < kMostHosts || m_listening.claims.contains(source))
                m_listening.claims[source].insert(static_cast<unsigned char>(bytes[2]));
        } else if (bytes.size() == 4 && bytes.starts_with(kObjection)) {
            ++m_listening.objections[static_cast<std::uint8_t>(bytes[2])];
        } else if (isAnnouncement(bytes)) {
            const std::string_view field = bytes.substr(kName, kNameWidth);
            const HostKey host{m_interface.index, source, std::string(field.substr(0, field.find('\0'))),
                               idOf(bytes)};
            if (m_listening.hosts.size() >= kMostHosts && !m_listening.hosts.contains(host))
                return;
            Hearing& hearing = m_listening.hosts[host];
            hearing.times.push_back(time);
            hearing.imageGroup = numberAt<unsigned int>(bytes, kImage);
            hearing.imagePort = ntohs(numberAt<unsigned short>(bytes, kImage + 4));
        }
    }

    /// A packet from its IP header on.
    void look(std::string_view packet) {
        constexpr std::size_t kSource = 12;
        constexpr std::size_t kUdpHeader = 8;
        if (packet.size() < 20)
            return;
        const std::size_t header = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
        const std::string_view rest = packet.substr(std::min(header, packet.size()));
        if (packet[9] == IPPROTO_IGMP && !rest.empty() && rest[0] == 0x11)
            ++m_ear.igmpQueries;
        if (packet[9] == IPPROTO_UDP && rest.size() > kUdpHeader && isAnnouncement(rest.substr(kUdpHeader)) &&
            m_listening.onWire[m_interface.index].size() < kMostHosts)
            m_listening.onWire[m_interface.index].insert(numberAt<unsigned int>(packet, kSource));
    }

    const Interface& m_interface;
    Listening& m_listening;
    Ear& m_ear;
    std::array<Socket, kGroups.size()> m_sockets;
    Socket m_sender;
    sockaddr_in m_own{}; // the sender's address and port
    Socket m_wire;
};

} // namespace

Listening listen(const std::vector<Interface>& interfaces, Seconds duration, bool quick, Loop& loop) {
    if (!Socket(AF_INET, SOCK_DGRAM, 0).isOpen())
        throw std::system_error(errno, std::generic_category(), "no socket can be made");
    Listening listening;
    listening.duration = duration;
    std::deque<Station> stations;
    for (const Interface& interface : interfaces)
        if (interface.up && !interface.addresses.empty())
            stations.emplace_back(interface, listening, quick);

    // At first it only listens, to hear whom others ask; behind the last query it waits for late answers.
    const Seconds silence = quick ? 0s : std::min<Seconds>(1s, duration / 5);
    const Seconds asking = (duration - silence) / 2;
    const Seconds period = std::min<Seconds>(1s, asking / 4);
    const Seconds start = wallClock();
    Seconds next = silence;
    for (;;) {
        const Seconds now = wallClock() - start;
        if (now >= duration || now < 0s) // the clock may be set meanwhile
            break;
        if (now >= next && next <= silence + asking) {
            for (Station& station : stations)
                station.query();
            listening.queries.push_back(now);
            next += period;
        }
        if (loop.wait(20ms) == Loop::Event::Stop) {
            listening.stopped = true;
            break;
        }
        for (Station& station : stations)
            station.drain(start);
    }
    return listening;
}

} // namespace doctor
