#include <UdpSocket/detail/tcp_stream.h>

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace net::detail {

ssize_t sendBytes(const Descriptor& socket, const char* data, std::size_t length, int flags) {
    errno = 0;
    return ::send(socket.get(), data, length, MSG_NOSIGNAL | flags);
}

ssize_t sendParts(const Descriptor& socket, const Parts& parts, int flags, std::size_t skipped) {
    errno = 0;
    if (parts.empty())
        return 0;
    if (parts.size() > IOV_MAX) {
        errno = EINVAL;
        return -1;
    }
    std::vector<iovec> pieces;
    pieces.reserve(parts.size());
    for (const auto& [data, length] : parts) {
        auto* const begin = static_cast<char*>(const_cast<void*>(data));
        const auto size = static_cast<std::size_t>(length);
        const std::size_t left = std::min(skipped, size);
        skipped -= left;
        pieces.push_back({begin + left, size - left});
    }
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    return ::sendmsg(socket.get(), &message, MSG_NOSIGNAL | flags);
}

} // namespace net::detail
