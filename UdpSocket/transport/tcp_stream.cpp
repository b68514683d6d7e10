#include <UdpSocket/transport/tcp_stream.h>

#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace net::detail {

namespace {

constexpr int kKeepAliveIdle = 5; // seconds of silence
constexpr int kKeepAliveInterval = 3;
constexpr int kKeepAliveProbes = 3;  // without an answer, and the connection fails with ETIMEDOUT
constexpr int kUnansweredProbes = 1; // for room: the answer to the newest may be on its way

} // namespace

Message::Message(const Parts& parts) : m_inPieces(true) {
    m_pieces.reserve(parts.size());
    for (const auto& [data, length] : parts) {
        m_pieces.push_back({const_cast<void*>(data), static_cast<std::size_t>(length)});
        m_length += static_cast<std::size_t>(length);
    }
}

ssize_t Message::send(const Descriptor& socket, std::size_t begin, int flags) const {
    errno = 0;
    flags |= MSG_NOSIGNAL;
    if (!m_inPieces)
        return ::send(socket.get(), m_data + begin, m_length - begin, flags);
    if (m_pieces.empty())
        return 0;
    if (m_pieces.size() > IOV_MAX) {
        errno = EINVAL;
        return -1;
    }
    std::size_t first = 0;
    while (begin > 0 && begin >= m_pieces[first].iov_len)
        begin -= m_pieces[first++].iov_len;
    if (begin > 0) { // in the middle of a piece, whose end goes alone
        const iovec& piece = m_pieces[first];
        return ::send(socket.get(), static_cast<const char*>(piece.iov_base) + begin, piece.iov_len - begin,
                      flags);
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(&m_pieces[first]);
    message.msg_iovlen = m_pieces.size() - first;
    return ::sendmsg(socket.get(), &message, flags);
}

std::string Message::copyFrom(std::size_t begin) const {
    if (!m_inPieces)
        return {m_data + begin, m_length - begin};
    std::string result;
    result.reserve(m_length - begin);
    for (const iovec& piece : m_pieces) {
        const std::size_t skipped = std::min(begin, piece.iov_len);
        begin -= skipped;
        result.append(static_cast<const char*>(piece.iov_base) + skipped, piece.iov_len - skipped);
    }
    return result;
}

ssize_t sendAll(const Descriptor& socket, const Message& message) {
    std::size_t sent = 0;
    do {
        const ssize_t count = message.send(socket, sent, 0);
        if (count > 0)
            sent += static_cast<std::size_t>(count);
        else if (count == 0 || errno != EINTR)
            return count;
    } while (sent < message.length());
    return static_cast<ssize_t>(sent);
}

Turns::Place::Place(Turns& turns) : m_turns(turns) {
    Lock lock(m_turns.m_mutex);
    Place** last = &m_turns.m_first;
    while (*last != nullptr)
        last = &(*last)->m_next;
    *last = this;
}

Turns::Place::~Place() {
    {
        Lock lock(m_turns.m_mutex);
        Place** place = &m_turns.m_first;
        while (*place != this)
            place = &(*place)->m_next;
        *place = m_next;
    }
    m_turns.m_changed.notify_all();
}

bool Turns::Place::isFirst() const {
    Lock lock(m_turns.m_mutex);
    return m_turns.m_first == this;
}

void Turns::Place::waitUntilFirst() {
    Lock lock(m_turns.m_mutex);
    m_turns.m_changed.wait(lock, [this]() REQUIRES(m_turns.m_mutex) { return m_turns.m_first == this; });
}

bool Turns::isEmpty() const {
    Lock lock(m_mutex);
    return m_first == nullptr;
}

void enableKeepAlive(const Descriptor& socket) {
    // Refused by no system that has TCP; without them the connection is what it was before.
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdle);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveInterval);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
}

bool isPeerGone(const Descriptor& socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    // The system does not ask while data is on its way, or waits for a peer that has no room: it sends that
    // again, or asks for room at growing intervals, for a quarter of an hour.
    return ::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
           (info.tcpi_retransmits > 0 || info.tcpi_probes > kUnansweredProbes) &&
           std::chrono::milliseconds(info.tcpi_last_ack_recv) >= kLongestSilence;
}

} // namespace net::detail
