#include <RadarWatch/tcp_feed.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <string>

namespace radar::detail {

namespace {

constexpr int kPeers = 4; // a radar that has come back, while the connections it lost are still open

} // namespace

std::unique_ptr<TcpFeed> TcpFeed::open(const Target& target, net::detail::Descriptor out) {
    std::unique_ptr<TcpFeed> feed(new TcpFeed(std::move(out)));
    if (target.endpoint.type == kTcpClient) {
        feed->m_client = std::make_unique<net::TcpClient>(feed.get(), target.endpoint, target.localAddress);
        return feed;
    }
    feed->m_server = std::make_unique<net::TcpServer>(feed.get());
    const std::string local = net::transAddr(target.localAddress);
    if (!feed->m_server->connect(local.c_str(), net::NtoHs(target.endpoint.port), kPeers)) {
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
        if (written < 0 && errno != EINTR)
            return; // ended
        if (written > 0) {
            data += written;
            length -= static_cast<int>(written);
        }
    }
}

} // namespace radar::detail
