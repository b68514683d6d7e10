#include <UdpSocket/base/socket.h>

#include <fcntl.h>
#include <net/if.h>

namespace net::detail {

namespace {

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

} // namespace

Descriptor ownSocket(int number) {
    Descriptor socket(number);
    if (number < 0 || number > STDERR_FILENO)
        return socket;
    return Descriptor(::fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

Descriptor openSocket(int type, int protocol) {
    return ownSocket(::socket(AF_INET, type | SOCK_CLOEXEC, protocol));
}

bool bindTo(const Descriptor& socket, const sockaddr_in& address) {
    return ::bind(socket.get(), generic(address), sizeof address) == 0;
}

bool joinGroup(const Descriptor& socket, in_addr_t group, in_addr_t interfaceAddress) {
    return setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership(group, interfaceAddress));
}

bool leaveGroup(const Descriptor& socket, in_addr_t group, unsigned int interface) {
    const ip_mreqn membership{in_addr{group}, {}, static_cast<int>(interface)};
    return setOption(socket, IPPROTO_IP, IP_DROP_MEMBERSHIP, membership);
}

bool bindToDevice(const Descriptor& socket, const std::string& device) {
    ifreq request{};
    device.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return setOption(socket, SOL_SOCKET, SO_BINDTODEVICE, request);
}

ssize_t sendTo(const Descriptor& socket, const char* data, int length, const sockaddr_in& destination,
               int flags) {
    return ::sendto(socket.get(), data, static_cast<size_t>(length), flags, generic(destination),
                    sizeof destination);
}

Received receiveFrom(const Descriptor& socket, char* buffer, int size) {
    Received received;
    received.source.sin_family = AF_UNSPEC;
    socklen_t length = sizeof received.source;
    received.count = ::recvfrom(socket.get(), buffer, static_cast<size_t>(size), 0,
                                reinterpret_cast<sockaddr*>(&received.source), &length);
    received.error = received.count < 0 ? errno : 0;
    return received;
}

void wakeReader(const Descriptor& socket) noexcept {
    if (socket.isOpen())
        ::shutdown(socket.get(),
                   SHUT_RD); // an unconnected UDP socket answers ENOTCONN and wakes all the same
}

} // namespace net::detail
