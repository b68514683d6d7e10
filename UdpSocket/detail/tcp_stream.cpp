#include <UdpSocket/detail/tcp_stream.h>

#include <netinet/tcp.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

namespace net::detail {

namespace {

constexpr int kFirstQuestion = 5; // seconds of silence
constexpr int kBetweenQuestions = 3;
constexpr int kQuestions = 3; // without an answer, and the connection fails with ETIMEDOUT
constexpr std::uint32_t kLongestSilenceMs = 15000;
constexpr int kUnansweredProbes = 1; // for room: the answer to the newest may be on its way

} // namespace

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

void askSilentPeer(const Descriptor& socket) {
    // Refused by no system that has TCP; without them the connection is what it was before.
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kFirstQuestion);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kBetweenQuestions);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kQuestions);
}

bool isPeerGone(const Descriptor& socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    // The system does not ask while data is on its way, or waits for a peer that has no room: it sends that
    // again, or asks for room at growing intervals, for a quarter of an hour.
    return ::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           (info.tcpi_retransmits > 0 || info.tcpi_probes > kUnansweredProbes) &&
           info.tcpi_last_ack_recv >= kLongestSilenceMs;
}

} // namespace net::detail
