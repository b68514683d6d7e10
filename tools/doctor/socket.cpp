#include "socket.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

namespace doctor {

bool Socket::bind(unsigned int ip, unsigned short port) const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(port);
    return ::bind(m_number, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

Seconds wallClock() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

bool receive(const Socket& socket, Datagram& datagram) {
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

Socket openWire(int index) {
    Socket socket(AF_PACKET, SOCK_DGRAM, 0);
    if (!socket.isOpen())
        return socket;
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9), // protocol
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_IGMP, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 16), // destination
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xEC060705, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xEC060704, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0xEC060714, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{std::size(code), code};
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = index;
    if (!socket.set(SOL_SOCKET, SO_ATTACH_FILTER, filter) ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

} // namespace doctor
