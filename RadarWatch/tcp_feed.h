/// @file
/// A TCP endpoint of a radar, as a source of bytes.
#pragma once

#include <RadarWatch/stream_follower.h>

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/tcpsocket.h>

#include <memory>

namespace radar::detail {

/// A server on the local address, at the port to which a radar connects. @return null when the port is not to
/// be had (errno), of which nothing is printed. @throws std::bad_alloc
std::unique_ptr<net::TcpServer> serve(const Target& target, net::iTcpDataListener* listener);

/// Connects to the endpoint, or serves it, and writes what comes into a socket; where nobody reads that, the
/// peer waits, as TCP has it. Threads: those of TcpClient or TcpServer, until end().
class TcpFeed final : public net::iTcpDataListener {
public:
    /// @return null when the port is not to be had (errno). @throws std::bad_alloc, std::system_error
    static std::unique_ptr<TcpFeed> open(const Target& target, net::detail::Descriptor out);
    ~TcpFeed() { end(); }
    TcpFeed(const TcpFeed&) = delete;
    TcpFeed& operator=(const TcpFeed&) = delete;

    void end();

private:
    explicit TcpFeed(net::detail::Descriptor out) : m_out(std::move(out)) {}
    void OnTcpDataReceived(int fd, const char* addr, unsigned short port, const char* data,
                           int length) override;
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

    const net::detail::Descriptor m_out;
    std::unique_ptr<net::TcpClient> m_client;
    std::unique_ptr<net::TcpServer> m_server;
};

} // namespace radar::detail
