/// @file
/// What both ends of a TCP connection share: the bytes' way out, and the end of the connection.
#pragma once

#include <UdpSocket/detail/descriptor.h>

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace net::detail {

using Parts = std::vector<std::pair<const void*, int>>;

/// How often a thread in a receive call looks whether it is still wanted, and how long a server's send to a
/// client that does not read may take.
inline constexpr timeval kTcpTimeOut{0, 500000};

inline sockaddr_in tcpAddress(in_addr_t address, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = address;
    return result;
}

/// send() that never raises SIGPIPE. A result of 0 leaves errno 0.
/// @param flags more of its flags
ssize_t sendBytes(const Descriptor& socket, const char* data, std::size_t length, int flags = 0);

/// The same for several pieces in order, as writev takes and refuses them.
/// @param skipped that many bytes at the front are left out
ssize_t sendParts(const Descriptor& socket, const Parts& parts, int flags = 0, std::size_t skipped = 0);

/// Has the system ask a silent peer whether it is still there, from 5 seconds of silence on.
void askSilentPeer(const Descriptor& socket);

/// Whether nothing at all has come from the peer for 15 seconds although it was asked: its machine is gone,
/// or cut off. A peer that only does not read answers.
bool isPeerGone(const Descriptor& socket);

/// Ends a connection for both sides at once and wakes every thread that is blocked on it. The number stays
/// taken until its owners let go of it.
inline void endStream(const Descriptor& socket) noexcept {
    if (socket.isOpen())
        ::shutdown(socket.get(), SHUT_RDWR); // fails where there is no connection: nothing to end
}

} // namespace net::detail
