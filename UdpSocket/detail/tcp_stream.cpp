#include <UdpSocket/detail/tcp_stream.h>

#include <sys/uio.h>

#include <cerrno>
#include <climits>

namespace net::detail {

ssize_t sendBytes(const Descriptor& socket, const char* data, std::size_t length) {
    errno = 0;
    return ::send(socket.get(), data, length, MSG_NOSIGNAL);
}

ssize_t sendParts(const Descriptor& socket, const Parts& parts) {
    errno = 0;
    if (parts.empty())
        return 0;
    if (parts.size() > IOV_MAX) {
        errno = EINVAL;
        return -1;
    }
    std::vector<iovec> pieces;
    pieces.reserve(parts.size());
    for (const auto& [data, length] : parts)
        pieces.push_back({const_cast<void*>(data), static_cast<std::size_t>(length)});
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    return ::sendmsg(socket.get(), &message, MSG_NOSIGNAL);
}

} // namespace net::detail
