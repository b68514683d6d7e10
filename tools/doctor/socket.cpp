#include "socket.h"

#include <UdpSocket/udpsocket.h>

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace doctor {

Seconds wallClock() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::string hardwareText(const sockaddr_storage& packetAddress) {
    sockaddr_ll address;
    std::memcpy(&address, &packetAddress, sizeof address);
    char text[sizeof "00:00:00:00:00:00"] = "";
    if (address.sll_halen == ETH_ALEN)
        std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", address.sll_addr[0],
                      address.sll_addr[1], address.sll_addr[2], address.sll_addr[3], address.sll_addr[4],
                      address.sll_addr[5]);
    return text;
}

bool receive(const Descriptor& socket, Datagram& datagram) {
    char buffer[2048];
    alignas(cmsghdr) char control[256];
    iovec part{buffer, sizeof buffer};
    msghdr header{};
    header.msg_name = &datagram.from;
    header.msg_namelen = sizeof datagram.from;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t length = ::recvmsg(socket.get(), &header, 0);
    if (length < 0)
        return false;
    datagram.bytes.assign(buffer, static_cast<std::size_t>(length));
    datagram.received = wallClock();
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item))
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMP) {
            timeval stamp;
            std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
            datagram.received = std::chrono::seconds(stamp.tv_sec) + std::chrono::microseconds(stamp.tv_usec);
        }
    return true;
}

Descriptor openWire(int index) {
    Descriptor socket =
        net::detail::ownSocket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen())
        return socket;
    const auto group = [](const wire::Group& of) { return net::NtoHl(net::transAddr(of.address)); };
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9), // protocol
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_IGMP, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 16), // destination
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, group(wire::kDiscovery), 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, group(wire::kNegotiation), 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, group(wire::kBeacon), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{std::size(code), code};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = index;
    if (!net::detail::setOption(socket, SOL_SOCKET, SO_ATTACH_FILTER, filter) ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

} // namespace doctor
