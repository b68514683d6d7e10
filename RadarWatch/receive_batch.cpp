#include <RadarWatch/receive_batch.h>

#include <RadarWatch/recorded_lan.h>

#include <cstring>
#include <ctime>

namespace radar::detail {

namespace {

constexpr std::size_t kCacheLine = 64;

/// From one buffer to the next, with a recording's header: a whole number of cache lines, and no power of two
/// of them, which would share the cache's few places for one address.
std::size_t stride(std::size_t largest) {
    const std::size_t lines = (largest + sizeof(RecordedHeader) + kCacheLine - 1) / kCacheLine;
    return (lines | 1) * kCacheLine;
}

} // namespace

ReceiveBatch::ReceiveBatch(std::size_t largest, std::size_t capacity)
    : m_memory(new char[stride(largest) * capacity]), // untouched until used
      m_buffers(capacity), m_sources(capacity), m_controls(capacity), m_headers(capacity), m_used(capacity) {
    for (std::size_t i = 0; i < capacity; ++i) {
        m_buffers[i] = {&m_memory[i * stride(largest)], largest};
        msghdr& header = m_headers[i].msg_hdr;
        header.msg_name = &m_sources[i];
        header.msg_iov = &m_buffers[i];
        header.msg_iovlen = 1;
        header.msg_control = m_controls[i].bytes;
    }
}

/// Of a recording are the local sockets that take datagrams.
void ReceiveBatch::lookAt(const net::detail::Descriptor& socket) {
    int domain = AF_INET;
    int type = SOCK_DGRAM;
    socklen_t length = sizeof domain;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_DOMAIN, &domain, &length); // cannot be refused, as the next
    ::getsockopt(socket.get(), SOL_SOCKET, SO_TYPE, &type, &length);
    if (domain == AF_UNIX && type == SOCK_DGRAM)
        m_recordedHeader = sizeof(RecordedHeader);
    for (iovec& buffer : m_buffers)
        buffer.iov_len += m_recordedHeader;
    m_isKnown = true;
}

int ReceiveBatch::receive(const net::detail::Descriptor& socket, std::size_t count, int flags) {
    if (!m_isKnown)
        lookAt(socket);
    for (; m_used > 0; --m_used) { // the system has put its own lengths there
        msghdr& header = m_headers[m_used - 1].msg_hdr;
        header.msg_namelen = sizeof(sockaddr_in);
        header.msg_controllen = sizeof(Control::bytes);
    }
    const int received =
        ::recvmmsg(socket.get(), m_headers.data(), static_cast<unsigned int>(count), flags, nullptr);
    m_used = received > 0 ? static_cast<std::size_t>(received) : 0;
    return received;
}

std::chrono::nanoseconds ReceiveBatch::arrival(std::size_t place) const {
    const msghdr& header = m_headers[place].msg_hdr;
    const cmsghdr* const control = CMSG_FIRSTHDR(&header);
    std::timespec time{};
    if (control != nullptr && control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPNS)
        std::memcpy(&time, CMSG_DATA(control), sizeof time);
    else
        ::clock_gettime(CLOCK_REALTIME, &time); // cannot fail
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

Datagram ReceiveBatch::datagram(std::size_t place) const {
    Datagram datagram;
    datagram.data = data(place);
    datagram.size = size(place);
    if (m_recordedHeader != 0) {
        RecordedHeader header;
        std::memcpy(&header, m_buffers[place].iov_base, sizeof header);
        datagram.arrival = decltype(datagram.arrival)(std::chrono::nanoseconds(header.arrival));
        datagram.source = header.source;
        datagram.sourcePort = static_cast<std::uint16_t>(header.port);
        return datagram;
    }
    datagram.arrival = decltype(datagram.arrival)(arrival(place));
    if (m_headers[place].msg_hdr.msg_namelen == sizeof(sockaddr_in)) {
        datagram.source = m_sources[place].sin_addr.s_addr;
        datagram.sourcePort = ntohs(m_sources[place].sin_port);
    }
    return datagram;
}

} // namespace radar::detail
