#include <RadarWatch/recording/group_socket.h>

#include <UdpSocket/base/socket.h>

#include <net/if.h>

namespace radar::recording {

net::detail::Descriptor openGroup(const std::string& interface, const NetAddress& group, int receiveBuffer) {
    using net::detail::setOption;
    net::detail::Descriptor socket;
    const unsigned int index = ::if_nametoindex(interface.c_str());
    if (index == 0)
        return socket;
    socket = net::detail::openSocket(SOCK_DGRAM | SOCK_NONBLOCK);
    const ip_mreqn membership{in_addr{group.ip}, {}, static_cast<int>(index)};
    const bool hears =
        socket.isOpen() && setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1) &&
        setOption(socket, SOL_SOCKET, SO_TIMESTAMPNS, 1) &&
        setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0) && // or it hears what others joined elsewhere
        setOption(socket, SOL_SOCKET, SO_RCVBUF, receiveBuffer) &&
        net::detail::bindTo(socket, net::detail::makeAddress(group.ip, ntohs(group.port))) &&
        setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership);
    if (!hears) {
        const int error = errno;
        socket.reset();
        errno = error;
        return socket;
    }
    setOption(socket, SOL_SOCKET, SO_RCVBUFFORCE, receiveBuffer); // beyond the limit, where that is allowed
    return socket;
}

} // namespace radar::recording
