#include "tcp_implementations.h"

#include "bench.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/transport/tcp_stream.h>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <asio.hpp>
#include <uv.h>

#include <netinet/tcp.h>
#include <poll.h>

#include <atomic>
#include <deque>
#include <system_error>
#include <thread>

namespace bench {

namespace {

using net::detail::Descriptor;
using Received = std::function<void(Tcp*, const char*, std::size_t)>;

constexpr timeval kSendTimeOut{0, 500000};

void require(bool done, const char* what) {
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

void prepare(int socket) {
    constexpr int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeOut, sizeof kSendTimeOut);
}

// --------------------------------------------------------------------------------------------------- raw

class RawClient : public Tcp {
public:
    explicit RawClient(const TcpPlan& plan) : m_socket(net::detail::openSocket(SOCK_STREAM)) {
        const sockaddr_in to = socketAddress(plan.ip, plan.port);
        require(::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0, "connect");
        prepare(m_socket.get());
        m_thread = std::thread([this, received = plan.received] {
            const std::unique_ptr<char[]> buffer(new char[kTcpBuffer]);
            for (;;) {
                const ssize_t count = ::recv(m_socket.get(), buffer.get(), kTcpBuffer, 0);
                if (count <= 0)
                    return;
                received(this, buffer.get(), static_cast<std::size_t>(count));
            }
        });
    }
    ~RawClient() override {
        net::detail::endStream(m_socket);
        m_thread.join();
    }
    void send(const char* data, std::size_t length) override {
        ::send(m_socket.get(), data, length, MSG_NOSIGNAL);
    }
    void awaitPeers(int) override {}

private:
    const Descriptor m_socket;
    std::thread m_thread;
};

class RawServer : public Tcp {
public:
    /// @param flags of send, beside those that every call has
    explicit RawServer(const TcpPlan& plan, int flags = 0)
        : m_flags(flags), m_listening(net::detail::openSocket(SOCK_STREAM)) {
        const sockaddr_in at = socketAddress(plan.ip, plan.port);
        require(net::detail::setOption(m_listening, SOL_SOCKET, SO_REUSEADDR, 1) &&
                    ::bind(m_listening.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) == 0 &&
                    ::listen(m_listening.get(), 1000) == 0,
                "listen");
    }
    void awaitPeers(int count) override {
        while (m_peers.size() < static_cast<std::size_t>(count)) {
            const Descriptor& peer = m_peers.emplace_back(::accept(m_listening.get(), nullptr, nullptr));
            require(peer.isOpen(), "accept");
            prepare(peer.get());
        }
    }
    void send(const char* data, std::size_t length) override {
        for (const Descriptor& peer : m_peers)
            ::send(peer.get(), data, length, MSG_NOSIGNAL | m_flags);
    }

private:
    const int m_flags;
    const Descriptor m_listening;
    std::deque<Descriptor> m_peers;
};

// ----------------------------------------------------------------------------------------------- library

class Library : public Tcp, public net::iTcpDataListener {
public:
    explicit Library(const TcpPlan& plan) : m_received(plan.received) {}
    void OnTcpDataReceived(int, const char*, unsigned short, const char* data, int length) override {
        if (m_received)
            m_received(this, data, static_cast<std::size_t>(length));
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

private:
    const Received m_received;
};

class LibraryClient : public Library {
public:
    explicit LibraryClient(const TcpPlan& plan)
        : Library(plan), m_client(this, plan.ip.c_str(), plan.port, 0) {
        require(m_client.connectOnce(), "connectOnce");
    }
    void send(const char* data, std::size_t length) override {
        m_client.sendData(data, static_cast<unsigned int>(length));
    }
    void awaitPeers(int) override {}

private:
    net::TcpClient m_client;
};

class LibraryServer : public Library {
public:
    explicit LibraryServer(const TcpPlan& plan) : Library(plan), m_server(this) {
        require(m_server.connect(plan.ip.c_str(), plan.port, 1000), "connect");
    }
    void awaitPeers(int count) override {
        while (m_server.numOfClients() < count)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void send(const char* data, std::size_t length) override {
        m_server.sendData(data, static_cast<unsigned int>(length));
    }

private:
    net::TcpServer m_server;
};

// -------------------------------------------------------------------------------------------------- asio

using tcp = asio::ip::tcp;

class AsioClient : public Tcp {
public:
    explicit AsioClient(const TcpPlan& plan) : m_received(plan.received), m_socket(m_context) {
        m_socket.connect({asio::ip::make_address_v4(plan.ip), plan.port});
        m_socket.set_option(tcp::no_delay(true));
        receive();
        m_thread = std::thread([this] { m_context.run(); });
    }
    ~AsioClient() override {
        m_context.stop();
        m_thread.join();
    }
    void send(const char* data, std::size_t length) override {
        asio::error_code error;
        asio::write(m_socket, asio::buffer(data, length), error);
    }
    void awaitPeers(int) override {}

private:
    void receive() {
        m_socket.async_read_some(asio::buffer(m_buffer.get(), kTcpBuffer),
                                 [this](asio::error_code error, std::size_t count) {
                                     if (error)
                                         return;
                                     m_received(this, m_buffer.get(), count);
                                     receive();
                                 });
    }

    const Received m_received;
    asio::io_context m_context{1};
    tcp::socket m_socket;
    const std::unique_ptr<char[]> m_buffer{new char[kTcpBuffer]};
    std::thread m_thread;
};

class AsioServer : public Tcp {
public:
    explicit AsioServer(const TcpPlan& plan)
        : m_acceptor(m_context, tcp::endpoint(asio::ip::make_address_v4(plan.ip), plan.port)) {}
    void awaitPeers(int count) override {
        while (m_peers.size() < static_cast<std::size_t>(count)) {
            m_peers.push_back(m_acceptor.accept());
            prepare(m_peers.back().native_handle());
        }
    }
    void send(const char* data, std::size_t length) override {
        asio::error_code error;
        for (tcp::socket& peer : m_peers)
            asio::write(peer, asio::buffer(data, length), error);
    }

private:
    asio::io_context m_context{1};
    tcp::acceptor m_acceptor;
    std::deque<tcp::socket> m_peers;
};

// ------------------------------------------------------------------------------------------------- libuv

void check(int result) {
    if (result < 0)
        throw std::runtime_error(uv_strerror(result));
}

uv_stream_t* stream(uv_tcp_t& handle) {
    return reinterpret_cast<uv_stream_t*>(&handle);
}

uv_buf_t buffer(const char* data, std::size_t length) {
    return uv_buf_init(const_cast<char*>(data), static_cast<unsigned int>(length));
}

/// Waits for room where the socket buffer is full, as the blocking sends of the others do.
void sendAll(uv_tcp_t& handle, const char* data, std::size_t length) {
    while (length > 0) {
        const uv_buf_t rest = buffer(data, length);
        const int sent = uv_try_write(stream(handle), &rest, 1);
        if (sent > 0) {
            data += sent;
            length -= static_cast<std::size_t>(sent);
        } else if (sent == UV_EAGAIN) {
            int socket = -1;
            uv_fileno(reinterpret_cast<uv_handle_t*>(&handle), &socket);
            pollfd writable{socket, POLLOUT, 0};
            if (::poll(&writable, 1, 500) <= 0)
                return;
        } else {
            return;
        }
    }
}

class LibuvClient : public Tcp {
public:
    explicit LibuvClient(const TcpPlan& plan) : m_received(plan.received) {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_stop, [](uv_async_t* handle) { uv_stop(handle->loop); });
        uv_tcp_init(&m_loop, &m_handle);
        uv_tcp_nodelay(&m_handle, 1);
        m_handle.data = this;
        const sockaddr_in to = socketAddress(plan.ip, plan.port);
        check(uv_tcp_connect(&m_request, &m_handle, reinterpret_cast<const sockaddr*>(&to),
                             [](uv_connect_t* request, int status) {
                                 static_cast<LibuvClient*>(request->handle->data)->m_connected = status == 0;
                                 uv_stop(request->handle->loop);
                             }));
        uv_run(&m_loop, UV_RUN_DEFAULT);
        require(m_connected, "uv_tcp_connect");
        check(uv_read_start(stream(m_handle), giveBuffer, take));
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    ~LibuvClient() override {
        uv_async_send(&m_stop);
        m_thread.join(); // the handles go with the process
    }
    void send(const char* data, std::size_t length) override { sendAll(m_handle, data, length); }
    void awaitPeers(int) override {}

private:
    static void giveBuffer(uv_handle_t* handle, std::size_t, uv_buf_t* given) {
        *given = buffer(static_cast<LibuvClient*>(handle->data)->m_buffer.get(), kTcpBuffer);
    }
    static void take(uv_stream_t* handle, ssize_t count, const uv_buf_t* given) {
        auto* const self = static_cast<LibuvClient*>(handle->data);
        if (count > 0)
            self->m_received(self, given->base, static_cast<std::size_t>(count));
        else if (count < 0)
            uv_read_stop(handle);
    }

    const Received m_received;
    bool m_connected = false;
    uv_loop_t m_loop;
    uv_async_t m_stop;
    uv_tcp_t m_handle;
    uv_connect_t m_request;
    const std::unique_ptr<char[]> m_buffer{new char[kTcpBuffer]};
    std::thread m_thread;
};

class LibuvServer : public Tcp {
public:
    explicit LibuvServer(const TcpPlan& plan) {
        uv_loop_init(&m_loop);
        uv_tcp_init(&m_loop, &m_listening);
        m_listening.data = this;
        const sockaddr_in at = socketAddress(plan.ip, plan.port);
        check(uv_tcp_bind(&m_listening, reinterpret_cast<const sockaddr*>(&at), 0));
        check(uv_listen(stream(m_listening), 1000, [](uv_stream_t* listening, int) {
            auto* const self = static_cast<LibuvServer*>(listening->data);
            uv_tcp_t& peer = self->m_peers.emplace_back();
            uv_tcp_init(&self->m_loop, &peer);
            check(uv_accept(listening, stream(peer)));
            uv_tcp_nodelay(&peer, 1);
        }));
    }
    void awaitPeers(int count) override {
        while (m_peers.size() < static_cast<std::size_t>(count))
            uv_run(&m_loop, UV_RUN_ONCE);
    }
    void send(const char* data, std::size_t length) override {
        for (uv_tcp_t& peer : m_peers)
            sendAll(peer, data, length);
    }

private:
    uv_loop_t m_loop;
    uv_tcp_t m_listening;
    std::deque<uv_tcp_t> m_peers;
};

// -------------------------------------------------------------------------------------------------- POCO

class PocoClient : public Tcp {
public:
    explicit PocoClient(const TcpPlan& plan) : m_socket(Poco::Net::SocketAddress(plan.ip, plan.port)) {
        m_socket.setNoDelay(true);
        m_thread = std::thread([this, received = plan.received] {
            const std::unique_ptr<char[]> buffer(new char[kTcpBuffer]);
            try {
                for (int count; (count = m_socket.receiveBytes(buffer.get(), kTcpBuffer)) > 0;)
                    received(this, buffer.get(), static_cast<std::size_t>(count));
            } catch (const Poco::Exception&) { // the end
            }
        });
    }
    ~PocoClient() override {
        ::shutdown(m_socket.impl()->sockfd(), SHUT_RDWR);
        m_thread.join();
    }
    void send(const char* data, std::size_t length) override {
        m_socket.sendBytes(data, static_cast<int>(length));
    }
    void awaitPeers(int) override {}

private:
    Poco::Net::StreamSocket m_socket;
    std::thread m_thread;
};

class PocoServer : public Tcp {
public:
    explicit PocoServer(const TcpPlan& plan)
        : m_listening(Poco::Net::SocketAddress(plan.ip, plan.port), 1000) {}
    void awaitPeers(int count) override {
        while (m_peers.size() < static_cast<std::size_t>(count)) {
            m_peers.push_back(m_listening.acceptConnection());
            prepare(m_peers.back().impl()->sockfd());
        }
    }
    void send(const char* data, std::size_t length) override {
        for (Poco::Net::StreamSocket& peer : m_peers) {
            try {
                peer.sendBytes(data, static_cast<int>(length));
            } catch (const Poco::Exception&) { // one that does not read
            }
        }
    }

private:
    Poco::Net::ServerSocket m_listening;
    std::deque<Poco::Net::StreamSocket> m_peers;
};

template <class Implementation>
std::unique_ptr<Tcp> make(const TcpPlan& plan) {
    return std::make_unique<Implementation>(plan);
}

} // namespace

std::unique_ptr<Tcp> makeRawNonBlockingServer(const TcpPlan& plan) {
    return std::make_unique<RawServer>(plan, MSG_DONTWAIT);
}

const std::vector<TcpImplementation>& tcpImplementations() {
    static const std::vector<TcpImplementation> implementations{
        {"raw", make<RawClient>, make<RawServer>},
        {"library", make<LibraryClient>, make<LibraryServer>},
        {"asio", make<AsioClient>, make<AsioServer>},
        {"libuv", make<LibuvClient>, make<LibuvServer>},
        {"POCO", make<PocoClient>, make<PocoServer>}};
    return implementations;
}

} // namespace bench
