#include <UdpSocket/transport/tcp_server_client.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/transport/tcp_sites.h>
#include <UdpSocket/transport/tcp_stream.h>
#include <UdpSocket/udpsocket.h>

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <utility>

namespace net::detail {

namespace {

constexpr std::size_t kReceiveBuffer = 2048000; // longest piece given to the listener

/// Returns when there are bytes from it, or room for some to it, or when it is time to look at the running
/// flag. What has happened the calls that follow find.
void awaitEvent(const Descriptor& socket) {
    pollfd event{socket.get(), POLLIN | POLLOUT, 0};
    ::poll(&event, 1, static_cast<int>(kTcpTimeOut.count()));
}

} // namespace

ServerClient::ServerClient(Descriptor socket, const sockaddr_in& peer, ErrorReporter server)
    : m_socket(std::move(socket)), m_address(transAddr(peer.sin_addr.s_addr)), m_port(ntohs(peer.sin_port)),
      m_server(std::move(server)), m_buffer(new char[kReceiveBuffer]) {}

void ServerClient::setOptions() const {
    if (!setOption(m_socket, SOL_SOCKET, SO_RCVTIMEO, toTimeval(kTcpTimeOut)))
        m_server.report(tcp_site::kServerReceiveTimeOut);
    enableKeepAlive(m_socket);
    if (!setOption(m_socket, SOL_SOCKET, SO_SNDTIMEO, toTimeval(kTcpTimeOut)))
        m_server.report(tcp_site::kServerSendTimeOut);
}

void ServerClient::close() {
    m_closed = true;
    endStream();
}

bool ServerClient::receive(const std::atomic<bool>& running, iTcpDataListener* listener) {
    bool peerEnded = false;
    while (running && !m_closed) {
        int flags = 0;
        if (m_outgoing.isBehind()) {
            awaitEvent(m_socket);
            m_outgoing.catchUp();
            flags = MSG_DONTWAIT;
        }
        const ssize_t count = ::recv(m_socket.get(), m_buffer.get(), kReceiveBuffer, flags);
        const bool timedOut = count < 0 && (errno == EAGAIN || errno == EINTR);
        peerEnded = count == 0;
        if (peerEnded || (count < 0 && !timedOut) || (timedOut && isPeerGone(m_socket)))
            break;
        if (count > 0 && running && !m_closed && listener != nullptr)
            runStep("TcpServer: received data", [&] {
                listener->OnTcpDataReceived(m_socket.get(), m_address.c_str(), m_port, m_buffer.get(),
                                            static_cast<int>(count));
            });
    }
    m_buffer.reset();
    return peerEnded;
}

void ServerClient::sendLeftovers(const std::atomic<bool>& running) {
    using Clock = std::chrono::steady_clock;
    m_outgoing.awaitSenders();
    std::size_t left = m_outgoing.restLength();
    for (auto progress = Clock::now(); running && left > 0 && Clock::now() - progress < kLongestSilence;) {
        m_outgoing.awaitRoom(kTcpTimeOut);
        m_outgoing.catchUp();
        if (const std::size_t before = std::exchange(left, m_outgoing.restLength()); left < before)
            progress = Clock::now();
    }
    if (running)
        close();
}

} // namespace net::detail
