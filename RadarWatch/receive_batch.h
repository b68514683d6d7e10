/// @file
/// Datagrams received in one call.
#pragma once

#include <RadarWatch/radarstream.h>

#include <UdpSocket/base/descriptor.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

namespace radar::detail {

/// Buffers and headers for recvmmsg, from sockets of a LAN or from those of a recording, but not of both. One
/// thread at a time.
class ReceiveBatch {
public:
    /// @param largest  bytes of a datagram
    /// @param capacity datagrams
    ReceiveBatch(std::size_t largest, std::size_t capacity);

    /// As recvmmsg, into the first @p count places. A socket that was shut gives 1, of which isDatagram is
    /// false.
    int receive(const net::detail::Descriptor& socket, std::size_t count, int flags);

    // Of a place that was filled.
    bool isDatagram(std::size_t place) const {
        return m_headers[place].msg_len > 0 || m_headers[place].msg_hdr.msg_namelen > 0;
    }
    bool isCut(std::size_t place) const { return (m_headers[place].msg_hdr.msg_flags & MSG_TRUNC) != 0; }
    std::size_t size(std::size_t place) const { return m_headers[place].msg_len - m_recordedHeader; }
    const char* data(std::size_t place) const {
        return static_cast<const char*>(m_buffers[place].iov_base) + m_recordedHeader;
    }
    /// Since the epoch; of the system where it said so, else of this call.
    std::chrono::nanoseconds arrival(std::size_t place) const;
    Datagram datagram(std::size_t place) const;

private:
    struct alignas(cmsghdr) Control {
        char bytes[64]; // a time takes 32
    };

    void lookAt(const net::detail::Descriptor& socket);

    const std::unique_ptr<char[]> m_memory;
    std::vector<iovec> m_buffers;
    std::vector<sockaddr_in> m_sources;
    std::vector<Control> m_controls;
    std::vector<mmsghdr> m_headers;
    std::size_t m_used;               // places that the last call filled
    std::size_t m_recordedHeader = 0; // bytes of it before each datagram; 0: these are of a LAN
    bool m_isKnown = false;           // which of both
};

} // namespace radar::detail
