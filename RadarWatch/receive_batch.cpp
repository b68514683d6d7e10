#include <RadarWatch/receive_batch.h>

#include <cstring>
#include <ctime>

namespace radar::detail {

namespace {

constexpr std::size_t kCacheLine = 64;

/// From one buffer to the next: a whole number of cache lines, and no power of two of them, which would share
/// the cache's few places for one address.
std::size_t stride(std::size_t largest) {
    const std::size_t lines = (largest + kCacheLine - 1) / kCacheLine;
    return (lines | 1) * kCacheLine;
}

} // namespace

ReceiveBatch::ReceiveBatch(std::size_t largest, std::size_t capacity)
    : m_memory(new char[stride(largest) * capacity]), // untouched until used
      m_buffers(capacity), m_sources(capacity), m_controls(capacity), m_headers(capacity) {
    for (std::size_t i = 0; i < capacity; ++i) {
        m_buffers[i] = {&m_memory[i * stride(largest)], largest};
        msghdr& header = m_headers[i].msg_hdr;
        header.msg_name = &m_sources[i];
        header.msg_iov = &m_buffers[i];
        header.msg_iovlen = 1;
        header.msg_control = m_controls[i].bytes;
    }
}

int ReceiveBatch::receive(const net::detail::Descriptor& socket, std::size_t count, int flags) {
    for (std::size_t i = 0; i < count; ++i) {
        msghdr& header = m_headers[i].msg_hdr;
        header.msg_namelen = sizeof(sockaddr_in);
        header.msg_controllen = sizeof(Control::bytes);
    }
    return ::recvmmsg(socket.get(), m_headers.data(), static_cast<unsigned int>(count), flags, nullptr);
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
    datagram.arrival = decltype(datagram.arrival)(arrival(place));
    if (m_headers[place].msg_hdr.msg_namelen == sizeof(sockaddr_in)) {
        datagram.source = m_sources[place].sin_addr.s_addr;
        datagram.sourcePort = ntohs(m_sources[place].sin_port);
    }
    return datagram;
}

} // namespace radar::detail
