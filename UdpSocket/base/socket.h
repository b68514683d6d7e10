/// @file
/// IPv4 sockets: made, configured, bound and joined in one place. Addresses and groups are in network byte
/// order, ports in host order. What the system refuses is told by the result, and errno.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <string>

namespace net::detail {

/// Owns a new socket, under another number where it has one of the standard streams: in a program that was
/// started without them, what is printed would be sent to a peer.
Descriptor ownSocket(int number);

/// A socket that commands run by the library do not inherit; not open when the system refuses.
/// @param type SOCK_DGRAM or SOCK_STREAM, and flags
Descriptor openSocket(int type, int protocol = 0);

/// setsockopt with the option's own type.
template <class Value>
bool setOption(const Descriptor& socket, int level, int option, const Value& value) {
    return ::setsockopt(socket.get(), level, option, &value, sizeof value) == 0;
}

/// A time-out as SO_RCVTIMEO and SO_SNDTIMEO take it.
inline timeval toTimeval(std::chrono::microseconds duration) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(duration);
    return {seconds.count(), (duration - seconds).count()};
}

inline sockaddr_in makeAddress(in_addr_t address, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = address;
    return result;
}

/// The 8-byte value that IP_ADD_MEMBERSHIP and IP_MULTICAST_IF take.
inline ip_mreq membership(in_addr_t group, in_addr_t interfaceAddress) {
    return {in_addr{group}, in_addr{interfaceAddress}};
}

bool bindTo(const Descriptor& socket, const sockaddr_in& address);
bool joinGroup(const Descriptor& socket, in_addr_t group, in_addr_t interfaceAddress);
/// Closing a socket leaves its group only when its last descriptor is closed, a forked child's as well; where
/// the interface has come back with its index by then, that takes the membership of a newer socket along.
/// @param interface index, also of one that is gone
bool leaveGroup(const Descriptor& socket, in_addr_t group, unsigned int interface);

/// @param device its name without an alias suffix; one that is too long is cut, and refused by the system
bool bindToDevice(const Descriptor& socket, const std::string& device);

/// One datagram; the result is that of sendto.
ssize_t sendTo(const Descriptor& socket, const char* data, int length, const sockaddr_in& destination,
               int flags = 0);

/// What a receive call came back with.
struct Received {
    ssize_t count;      ///< that of recvfrom
    sockaddr_in source; ///< of a datagram
    /// Also an empty one. A socket that was shut gives a count of 0 as well, but no source.
    bool isDatagram() const { return count >= 0 && source.sin_family == AF_INET; }
    /// Nothing came in time, or somebody interrupted the call: a debugger, or Ctrl-Z and fg.
    bool isTimeOut() const { return count < 0 && (error == EAGAIN || error == EINTR); }
    int error; ///< errno; 0 where there is none
};
Received receiveFrom(const Descriptor& socket, char* buffer, int size);

/// Makes a thread that blocks in a receive call on this socket come back at once with a result of 0.
void wakeReader(const Descriptor& socket) noexcept;

} // namespace net::detail
