#include "address_probe.h"

#include <linux/if_packet.h>
#include <netinet/if_ether.h>

#include <cstring>

namespace doctor {
namespace {

sockaddr_ll broadcastAt(int interfaceIndex) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ARP);
    address.sll_ifindex = interfaceIndex;
    address.sll_halen = ETH_ALEN;
    std::memset(address.sll_addr, 0xFF, ETH_ALEN);
    return address;
}

} // namespace

AddressProbe::AddressProbe(const Interface& interface)
    : m_interfaceIndex(interface.index), m_ip(interface.addresses.front().ip) {
    if (interface.hardware.empty() || interface.pointToPoint)
        return;
    m_socket = net::detail::ownSocket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_ll address = broadcastAt(interface.index);
    if (m_socket.isOpen() &&
        ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        m_socket.reset();
}

void AddressProbe::ask() {
    if (!m_socket.isOpen())
        return;
    const sockaddr_ll destination = broadcastAt(m_interfaceIndex);
    sockaddr_ll own{};
    socklen_t length = sizeof own;
    if (::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&own), &length) != 0)
        return m_socket.reset();
    ether_arp probe{};
    probe.ea_hdr = {htons(ARPHRD_ETHER), htons(ETHERTYPE_IP), ETH_ALEN, sizeof m_ip, htons(ARPOP_REQUEST)};
    std::memcpy(probe.arp_sha, own.sll_addr, sizeof probe.arp_sha);
    std::memcpy(probe.arp_tpa, &m_ip, sizeof m_ip);
    if (::sendto(m_socket.get(), &probe, sizeof probe, 0, reinterpret_cast<const sockaddr*>(&destination),
                 sizeof destination) == -1)
        m_socket.reset(); // the interface went away, say; what else was found still counts
}

std::set<std::string> AddressProbe::holders() {
    std::set<std::string> addresses;
    Datagram packet;
    for (int i = 0; i < 100 && m_socket.isOpen() && receive(m_socket, packet); ++i) {
        ether_arp arp;
        if (packet.bytes.size() < sizeof arp)
            continue;
        std::memcpy(&arp, packet.bytes.data(), sizeof arp);
        if (ntohs(arp.ea_hdr.ar_op) == ARPOP_REPLY && std::memcmp(arp.arp_spa, &m_ip, sizeof m_ip) == 0)
            addresses.insert(hardwareText(packet.from));
    }
    return addresses;
}

} // namespace doctor
