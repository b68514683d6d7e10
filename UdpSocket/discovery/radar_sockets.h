/// @file
/// A display's sockets to the radars.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <cstdint>
#include <memory>
#include <string_view>

/// Senders to the radars' groups and what the radars are heard by, on one local address: a receiver, or a
/// connection to the fixed radar. There are none until an address is given. Any thread may send; one at a
/// time opens, repairs and closes.
///
/// Old sockets are destroyed before new ones are made, without a lock: their threads may be calling the
/// listeners, which send.
class RadarSockets {
public:
    /// @param radarIp the fixed radar, network order; 0: none
    RadarSockets(net::iUdpDataListener* datagrams, net::iTcpDataListener* stream, std::uint32_t radarIp)
        : m_datagrams(datagrams), m_stream(stream), m_radarIp(radarIp) {}
    ~RadarSockets() { close(); }

    /// Opens the sockets on @p localIp (network order), and closes those before. Where the system lacks what
    /// they need, a line on standard error says so, and repair() tries again.
    void open(std::uint32_t localIp);
    void repair();
    void close();

    /// Sends to the radars' discovery group, and over the connection.
    void sendToRadars(const wire::Code& code) const;
    /// Sends to the group of the host ids.
    void sendToHosts(std::string_view message) const;

private:
    bool openAll();
    template <class Transport>
    using Slot = std::shared_ptr<Transport> RadarSockets::*;
    template <class Transport>
    void put(Slot<Transport> slot, std::shared_ptr<Transport> made);

    net::iUdpDataListener* const m_datagrams;
    net::iTcpDataListener* const m_stream;
    const std::uint32_t m_radarIp; // network order

    std::uint32_t m_localIp = 0; // network order
    bool m_complete = true;      // the last opening gave all that is needed

    mutable net::detail::Mutex m_transportMutex; // not held while a datagram is sent, nor while one ends
    std::shared_ptr<net::UdpSender> m_resetSender GUARDED_BY(m_transportMutex);
    std::shared_ptr<net::UdpSender> m_querySender GUARDED_BY(m_transportMutex);
    std::shared_ptr<net::UdpReceiver> m_announceReceiver GUARDED_BY(m_transportMutex);
    std::shared_ptr<net::TcpClient> m_tcpClient GUARDED_BY(m_transportMutex); // no copy: it joins its threads
};
