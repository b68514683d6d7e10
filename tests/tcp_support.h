/// @file
/// What the tests of the TCP classes share: plain sockets as peers, and a listener that records events.
#pragma once

#include "recorder.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>
#include <pthread.h>

namespace tcp_test {

using net::detail::Descriptor;

constexpr const char* kLocal = "127.0.0.1";
constexpr auto kQuick = 4s; // limit of what must wait neither for a time-out of 5 s nor forever

/// A plain TCP socket on the loopback interface, whose calls give up after 20 s.
class Peer {
public:
    explicit Peer(Descriptor socket = net::detail::openSocket(SOCK_STREAM)) : m_socket(std::move(socket)) {
        net::detail::setOption(m_socket, SOL_SOCKET, SO_RCVTIMEO, timeval{20, 0});
        net::detail::setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1);
    }
    explicit Peer(unsigned short port, const char* from = kLocal, int receiveBuffer = 0) : Peer() {
        if (receiveBuffer != 0)
            net::detail::setOption(m_socket, SOL_SOCKET, SO_RCVBUF, receiveBuffer);
        EXPECT_EQ(on(::bind, 0, from), 0);
        EXPECT_EQ(on(::connect, port), 0) << std::strerror(errno);
    }
    /// @param call ::bind or ::connect
    int on(int (*call)(int, const sockaddr*, socklen_t), unsigned short port, const char* ip = kLocal) const {
        sockaddr_in address{AF_INET, net::HtoNs(port), {net::transAddr(ip)}, {}};
        return call(fd(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }

    int fd() const { return m_socket.get(); }
    unsigned short port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(fd(), reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
    void close() { m_socket.reset(); }
    void reset() { // ends with RST instead of FIN
        net::detail::setOption(m_socket, SOL_SOCKET, SO_LINGER, linger{1, 0});
        close();
    }
    bool send(const std::string& bytes) const {
        return ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    /// @p count bytes, or what came before the end
    std::string read(size_t count, int flags = MSG_WAITALL) const {
        std::string bytes(count, '\0');
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(0, ::recv(fd(), bytes.data(), count, flags))));
        return bytes;
    }
    void endOwnDirection() const { ::shutdown(fd(), SHUT_WR); }
    /// Whether the stream ends in time, with FIN or RST; what comes before is dropped.
    bool ends() const {
        errno = 0;
        while (!read(4096, 0).empty())
            errno = 0;
        return errno != EAGAIN;
    }

private:
    Descriptor m_socket;
};

/// A plain listening socket.
class Listening {
public:
    /// @param port 0: the system chooses
    explicit Listening(unsigned short port = 0) {
        EXPECT_EQ(m_socket.on(::bind, port), 0);
        EXPECT_EQ(::listen(m_socket.fd(), 100), 0);
    }
    unsigned short port() const { return m_socket.port(); }
    bool isCalled() const {
        pollfd caller{m_socket.fd(), POLLIN, 0};
        return ::poll(&caller, 1, 0) > 0;
    }
    Peer accept() const { return Peer(Descriptor(::accept4(m_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC))); }

private:
    Peer m_socket;
};

/// A port that nobody listens on.
inline unsigned short freePort() {
    return Listening().port();
}

/// Records events. The hooks run on the thread of the callback, after the record, and are set before it.
class Notes : public net::iTcpDataListener {
public:
    virtual ~Notes() = default;
    std::function<void(int fd)> onConnected = [](int) {};
    std::function<void(int fd)> onDisconnected = [](int) {};
    std::function<void(int fd)> onData = [](int) {};
    Log<std::string> connected; // "5 127.0.0.1:4000", the first number being the descriptor
    Log<std::string> disconnected;

    std::string bytes() const {
        std::string all;
        for (const std::string& piece : m_received.all())
            all += piece;
        return all;
    }
    bool receives(const std::string& expected) const {
        return comesTrue([&] { return bytes() == expected; }, 20s);
    }

private:
    static std::string note(int fd, const char* addr, unsigned short port) {
        return std::to_string(fd) + " " + addr + ":" + std::to_string(port);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short, const char* data, int len) override {
        m_received.add(std::string(data, static_cast<size_t>(len)));
        onData(fd);
    }
    void OnTcpClientConnected(int fd, const char* addr, unsigned short port) override {
        connected.add(note(fd, addr, port));
        onConnected(fd);
    }
    void OnTcpClientDisconnected(int fd, const char* addr, unsigned short port) override {
        disconnected.add(note(fd, addr, port));
        onDisconnected(fd);
    }

    Log<std::string> m_received;
};

} // namespace tcp_test
