/// @file
/// The sending side of the benchmarks that receive.
#pragma once

#include "bench.h"
#include "udp_implementations.h"

#include <UdpSocket/base/socket.h>

#include <linux/udp.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

inline const std::string kHostIp = "10.20.1.1";

inline std::vector<Group> groups(int count) {
    std::vector<Group> result;
    for (int i = 0; i < count; ++i)
        result.push_back({"236.1.2." + std::to_string(i + 1), static_cast<unsigned short>(5000 + i)});
    return result;
}

/// Sends from host1 to each group in turn. Errors: std::runtime_error.
class Source {
public:
    Source(const lab::Node& host, const std::vector<Group>& groups, std::size_t size) : m_bytes(size, 'x') {
        const lab::Inside inside = host.enter();
        for (const Group& group : groups) {
            net::detail::Descriptor& socket = m_sockets.emplace_back(net::detail::openSocket(SOCK_DGRAM));
            const sockaddr_in local = socketAddress(kHostIp, 0);
            const sockaddr_in to = socketAddress(group.address, group.port);
            net::detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_IF, local.sin_addr);
            if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
                throw std::runtime_error("the sender cannot connect");
        }
    }

    /// @param rate datagrams a second
    /// @return how many were sent
    long paced(double rate, Seconds duration) {
        const auto begin = Clock::now();
        long sent = 0;
        for (;;) {
            const Seconds passed = Clock::now() - begin;
            if (passed >= duration)
                return sent;
            if (static_cast<double>(sent) > passed.count() * rate)
                continue; // busy waiting, for an even pace
            const net::detail::Descriptor& socket =
                m_sockets[static_cast<std::size_t>(sent) % m_sockets.size()];
            sent += ::send(socket.get(), m_bytes.data(), m_bytes.size(), 0) > 0 ? 1 : 0;
        }
    }

    /// As fast as possible: the system is given a packet at a time that it cuts into datagrams, so that
    /// sending costs less than receiving.
    void flood(Seconds duration) {
        const std::size_t pieces = std::min<std::size_t>(60, 60000 / m_bytes.size());
        const std::string packet(pieces * m_bytes.size(), 'x');
        if (!net::detail::setOption(m_sockets[0], IPPROTO_UDP, UDP_SEGMENT, static_cast<int>(m_bytes.size())))
            throw std::runtime_error("UDP_SEGMENT");
        for (const auto end = Clock::now() + duration; Clock::now() < end;)
            ::send(m_sockets[0].get(), packet.data(), packet.size(), 0);
    }

private:
    const std::string m_bytes;
    std::vector<net::detail::Descriptor> m_sockets;
};

} // namespace bench
