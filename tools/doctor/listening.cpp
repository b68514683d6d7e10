#include "address_probe.h"
#include "socket.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

namespace doctor {
namespace {

using namespace std::chrono_literals;
using net::detail::makeAddress;
using net::detail::setOption;

constexpr std::size_t kMaxHosts = 1000; // that are kept, and addresses: anybody may send anything
constexpr std::size_t kMaxHardware = 4; // addresses of one source
constexpr std::size_t kMaxQueries = 100000;
constexpr int kMaxAtOnce = 1000; // datagrams, before the clock and the signals are looked at again
constexpr int kWantedBuffer = 256 * 1024;

Descriptor openUdp() {
    return net::detail::openSocket(SOCK_DGRAM | SOCK_NONBLOCK);
}

bool isNegotiation(std::string_view datagram, const wire::Code& code) {
    return datagram.size() == sizeof(wire::Negotiation) && wire::hasCode(datagram, code);
}

std::uint8_t idIn(std::string_view negotiation) {
    return static_cast<std::uint8_t>(negotiation[offsetof(wire::Negotiation, hostId)]);
}

/// Everything that is open on one interface.
class InterfaceProbe {
public:
    InterfaceProbe(const Interface& interface, Listening& listening, bool quick)
        : m_interface(interface), m_listening(listening), m_result(listening.results[interface.index]) {
        for (std::size_t i = 0; i < kGroups.size(); ++i)
            m_result.joinErrors[i] = join(i);
        m_sender = openUdp();
        const ip_mreqn outgoing{{}, {interface.addresses.front().ip}, interface.index};
        const int on = 1;
        socklen_t length = sizeof m_own;
        if (!m_sender.isOpen() || !setOption(m_sender, IPPROTO_IP, IP_MULTICAST_IF, outgoing) ||
            !setOption(m_sender, IPPROTO_IP, IP_MULTICAST_LOOP, on) ||
            !net::detail::bindTo(m_sender, makeAddress(interface.addresses.front().ip, 0)) ||
            ::getsockname(m_sender.get(), reinterpret_cast<sockaddr*>(&m_own), &length) != 0)
            m_result.sendError = errno;
        if (!quick) {
            m_wire = openWire(interface.index);
            m_addressProbe.emplace(interface);
        }
        m_result.wire = m_wire.isOpen();
    }

    void query() {
        if (m_addressProbe)
            m_addressProbe->ask();
        if (m_result.sendError != 0)
            return;
        const sockaddr_in group =
            makeAddress(net::transAddr(wire::kDiscovery.address), wire::kDiscovery.port);
        if (net::detail::sendTo(m_sender, wire::kQuery.data(), wire::kQuery.size(), group) == -1)
            m_result.sendError = errno;
        else
            ++m_result.sent;
    }

    void drain(Seconds start) {
        if (m_addressProbe)
            for (const std::string& hardware : m_addressProbe->holders())
                addHardware(m_interface.addresses.front().ip, hardware);
        Datagram datagram;
        for (std::size_t i = 0; i < kGroups.size(); ++i)
            for (int n = 0; n < kMaxAtOnce && m_sockets[i].isOpen() && receive(m_sockets[i], datagram); ++n) {
                sockaddr_in from;
                std::memcpy(&from, &datagram.from, sizeof from);
                handleDatagram(datagram.bytes, from, datagram.received - start);
            }
        for (int n = 0; n < kMaxAtOnce && m_wire.isOpen() && receive(m_wire, datagram); ++n)
            handlePacket(datagram.bytes, hardwareText(datagram.from));
    }

private:
    /// @return the error of binding to or joining a group, 0 when it listens
    int join(std::size_t i) {
        const unsigned int ip = net::transAddr(kGroups[i].address);
        Descriptor socket = openUdp();
        const int on = 1;
        const int off = 0;
        const ip_mreqn membership{{ip}, {m_interface.addresses.front().ip}, m_interface.index};
        if (!socket.isOpen() || !setOption(socket, SOL_SOCKET, SO_REUSEADDR, on) ||
            !net::detail::bindTo(socket, makeAddress(ip, kGroups[i].port)))
            return errno;
        m_result.bound[i] = true;
        if (!setOption(socket, SOL_SOCKET, SO_RCVBUF, kWantedBuffer) ||
            !setOption(socket, SOL_SOCKET, SO_TIMESTAMP, on) ||
            !setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, off) ||
            !setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership))
            return errno;
        int granted = 0;
        socklen_t length = sizeof granted;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &granted, &length) == 0)
            m_listening.grantedBuffer = granted / 2; // the system counts its own room in
        m_sockets[i] = std::move(socket);
        return 0;
    }

    void handleDatagram(std::string_view bytes, const sockaddr_in& from, Seconds time) {
        const unsigned int source = from.sin_addr.s_addr;
        if (bytes == wire::text(wire::kQuery)) {
            if (source == m_own.sin_addr.s_addr && from.sin_port == m_own.sin_port)
                ++m_result.looped;
            else if (m_listening.foreignQueries.size() < kMaxQueries)
                m_listening.foreignQueries.push_back({m_interface.index, source, time});
        } else if (bytes == wire::kBeaconMarker) {
            ++m_listening.beacons;
        } else if (isNegotiation(bytes, wire::kProbe)) {
            if (m_listening.claims.size() < kMaxHosts || m_listening.claims.contains(source))
                m_listening.claims[source].insert(idIn(bytes));
        } else if (isNegotiation(bytes, wire::kObjection)) {
            ++m_listening.objections[idIn(bytes)];
        } else if (const auto announcement = protocol::readAnnouncement(bytes, {})) {
            RadarAddress record = announcement->listings[0].record;
            record.arpaStream.port = net::HtoNs(announcement->arpaPort); // no user endpoint says whose it is
            const HostKey host{m_interface.index, source, std::string(announcement->name.view()),
                               plan::hostIdOf(record)};
            if (m_listening.hosts.size() >= kMaxHosts && !m_listening.hosts.contains(host))
                return;
            HeardHost& heard = m_listening.hosts[host];
            heard.times.push_back(time);
            heard.image = record.imageStream;
        }
    }

    /// A packet from its IP header on.
    void handlePacket(std::string_view packet, const std::string& hardware) {
        constexpr wire::Field kSource{12, 4};
        constexpr std::size_t kUdpHeader = 8;
        if (packet.size() < 20)
            return;
        const std::size_t header = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
        const std::string_view rest = packet.substr(std::min(header, packet.size()));
        if (packet[9] == IPPROTO_IGMP && !rest.empty() && rest[0] == 0x11)
            ++m_result.igmpQueries;
        if (packet[9] == IPPROTO_UDP && rest.size() > kUdpHeader &&
            protocol::isAnnouncement(rest.substr(kUdpHeader)) &&
            m_listening.onWire[m_interface.index].size() < kMaxHosts) {
            const unsigned int source = wire::addressAt(packet, kSource);
            m_listening.onWire[m_interface.index].insert(source);
            addHardware(source, hardware);
        }
    }

    void addHardware(unsigned int source, const std::string& hardware) {
        std::set<std::string>& known = m_listening.hardware[{m_interface.index, source}];
        if (!hardware.empty() && known.size() < kMaxHardware)
            known.insert(hardware);
    }

    const Interface& m_interface;
    Listening& m_listening;
    InterfaceResult& m_result;
    std::array<Descriptor, kGroups.size()> m_sockets;
    Descriptor m_sender;
    sockaddr_in m_own{}; // the sender's address and port
    Descriptor m_wire;
    std::optional<AddressProbe> m_addressProbe;
};

/// Where the wire is closed: what the kernel takes for the hardware addresses of the hosts that were heard.
void readNeighbours(const std::vector<Interface>& interfaces, Listening& listening) {
    std::ifstream table("/proc/net/arp");
    std::string line;
    std::getline(table, line); // heading
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string ip, type, flags, hardware, mask, device;
        words >> ip >> type >> flags >> hardware >> mask >> device;
        const auto on = std::ranges::find(interfaces, device, &Interface::name);
        const unsigned int source = net::transAddr(ip.c_str());
        if (on == interfaces.end() || flags == "0x0" || !listening.results.contains(on->index) ||
            listening.results[on->index].wire)
            continue;
        for (const auto& [host, heard] : listening.hosts)
            if (host.interface == on->index && host.source == source)
                listening.hardware[{on->index, source}].insert(hardware);
    }
}

} // namespace

Listening listen(const std::vector<Interface>& interfaces, Seconds duration, bool quick, Loop& loop,
                 const std::function<void()>& meanwhile) {
    if (!openUdp().isOpen())
        throw std::system_error(errno, std::generic_category(), "no socket can be made");
    Listening listening;
    listening.duration = duration;
    std::deque<InterfaceProbe> probes;
    for (const Interface& interface : interfaces)
        if (interface.up && !interface.addresses.empty())
            probes.emplace_back(interface, listening, quick);

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
            for (InterfaceProbe& probe : probes)
                probe.query();
            listening.queries.push_back(now);
            readNeighbours(interfaces, listening);
            next += period;
        }
        if (loop.wait(20ms) == Loop::Event::Stop) {
            listening.stopped = true;
            break;
        }
        for (InterfaceProbe& probe : probes)
            probe.drain(start);
        meanwhile();
    }
    return listening;
}

} // namespace doctor
