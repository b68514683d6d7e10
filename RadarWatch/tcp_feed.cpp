#include <RadarWatch/tcp_feed.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace radar::detail {

namespace {

constexpr std::chrono::milliseconds kPause(10); // where the system has no memory
constexpr int kPeers = 4; // a radar that has come back, while the connections it lost are still open

/// Asked first, since TcpServer prints each refusal, and a port is tried again every second.
bool isFree(const sockaddr_in& address) {
    const net::detail::Descriptor socket = net::detail::openSocket(SOCK_STREAM);
    return socket.isOpen() && net::detail::setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1) &&
           net::detail::bindTo(socket, address);
}

} // namespace

std::unique_ptr<net::TcpServer> serve(const Target& target, net::iTcpDataListener* listener) {
    const std::uint16_t port = ntohs(target.endpoint.port);
    if (!isFree(net::detail::makeAddress(target.localAddress, port)))
        return nullptr;
    auto server = std::make_unique<net::TcpServer>(listener);
    if (!server->connect(net::transAddr(target.localAddress), port, kPeers)) {
        const int error = errno;
        server.reset();
        errno = error;
    }
    return server;
}

std::unique_ptr<TcpFeed> TcpFeed::open(const Target& target, net::detail::Descriptor out) {
    std::unique_ptr<TcpFeed> feed(new TcpFeed(std::move(out)));
    if (target.endpoint.type == kTcpClient) {
        feed->m_client = std::make_unique<net::TcpClient>(feed.get(), target.endpoint, target.localAddress);
        return feed;
    }
    feed->m_server = serve(target, feed.get());
    if (!feed->m_server) {
        const int error = errno;
        feed.reset();
        errno = error;
    }
    return feed;
}

void TcpFeed::end() {
    ::shutdown(m_out.get(), SHUT_RDWR); // a write that waits for its reader comes back
    m_client.reset();
    m_server.reset();
}

void TcpFeed::OnTcpDataReceived(int, const char*, unsigned short, const char* data, int length) {
    while (length > 0) {
        const ssize_t written = ::send(m_out.get(), data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
        if (written > 0) {
            data += written;
            length -= static_cast<int>(written);
        } else if (errno == ENOBUFS || errno == ENOMEM) {
            std::this_thread::sleep_for(kPause); // no byte of a connection may be left out; the peer waits
        } else if (errno != EINTR) {
            return; // ended
        }
    }
}

} // namespace radar::detail
