#include <UdpSocket/discovery/radar_sockets.h>

#include <UdpSocket/transport/protocol_sockets.h>

#include <cstdio>
#include <exception>

using net::detail::Lock;

/// Destroys the object in @p slot, and puts another there.
template <class Transport>
void RadarSockets::put(Slot<Transport> slot, std::shared_ptr<Transport> made) {
    Lock lock(m_transportMutex);
    made.swap(this->*slot);
    lock.unlock(); // before the old one ends
}

void RadarSockets::close() {
    put(&RadarSockets::m_resetSender, {});
    put(&RadarSockets::m_querySender, {});
    put(&RadarSockets::m_announceReceiver, {});
    put(&RadarSockets::m_tcpClient, {});
}

void RadarSockets::open(std::uint32_t localIp) {
    m_localIp = localIp;
    m_complete = openAll();
}

void RadarSockets::repair() {
    if (!m_complete)
        m_complete = openAll();
}

/// The senders first, and one by one, so that nothing that is to be sent meanwhile waits for the receiver's
/// end.
bool RadarSockets::openAll() try {
    put<net::UdpSender>(&RadarSockets::m_resetSender, net::detail::makeSender(wire::kNegotiation, m_localIp));
    put<net::UdpSender>(&RadarSockets::m_querySender, net::detail::makeSender(wire::kDiscovery, m_localIp));
    put(&RadarSockets::m_announceReceiver, {});
    put(&RadarSockets::m_tcpClient, {});
    if (m_radarIp != 0) {
        const NetAddress radar{m_radarIp, net::HtoNs(wire::kDiscovery.port)};
        put(&RadarSockets::m_tcpClient, std::make_shared<net::TcpClient>(m_stream, radar, m_localIp));
        return true;
    }
    auto receiver = net::detail::makeReceiver(m_datagrams, wire::kDiscovery, m_localIp);
    const bool listening = net::UdpReceiverPrivate::hasThread(*receiver);
    put<net::UdpReceiver>(&RadarSockets::m_announceReceiver, std::move(receiver));
    return listening;
} catch (const std::exception& error) { // no thread, no memory
    std::fprintf(stderr, "MultiRadarClient: cannot listen for radars now (%s), will try again\n",
                 error.what());
    return false;
}

void RadarSockets::sendToRadars(const wire::Code& code) const {
    std::shared_ptr<net::UdpSender> sender;
    {
        Lock lock(m_transportMutex);
        sender = m_querySender;
        if (m_tcpClient && m_tcpClient->isConnected())
            m_tcpClient->asyncSendData(code.data(), static_cast<unsigned int>(code.size()));
    }
    if (sender)
        net::detail::send(*sender, wire::text(code));
}

void RadarSockets::sendToHosts(std::string_view message) const {
    std::shared_ptr<net::UdpSender> sender;
    {
        Lock lock(m_transportMutex);
        sender = m_resetSender;
    }
    if (sender)
        net::detail::send(*sender, message);
}
