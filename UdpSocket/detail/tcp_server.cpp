#include <UdpSocket/detail/tcp_server.h>

#include <UdpSocket/detail/tcp_sites.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/udpsocket.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <system_error>

namespace net {

namespace {

using namespace std::chrono_literals;
namespace tcp_site = detail::tcp_site;

constexpr int kAcceptTimeOutMs = 500;           // how often the accept thread looks at the running flag
constexpr auto kPauseAfterFailedAccept = 100ms; // a lack of descriptors lasts
constexpr std::size_t kReceiveBuffer = 2048000; // longest piece given to the listener

int number(std::size_t count) {
    return static_cast<int>(count);
}

} // namespace

void TcpServerPrivate::report(const detail::SourceSite& site, const char* call) const {
    detail::reportSocketError(site, m_bound.address.c_str(), m_bound.port, call);
}

// ------------------------------------------------------------------------------------ starting, stopping

bool TcpServerPrivate::connect(in_addr_t ip, unsigned short port, int maxClients) {
    disconnect();
    m_limit = maxClients;
    m_listening = detail::openSocket(SOCK_STREAM | SOCK_NONBLOCK);
    if (!m_listening.isOpen()) {
        report(tcp_site::kServerSocket, "socket");
        return false;
    }
    if (!detail::setOption(m_listening, SOL_SOCKET, SO_REUSEADDR, 1)) {
        report(tcp_site::kServerReuseAddress, "setsockopt::SO_REUSERADDR");
        return false;
    }
    m_bound = {transAddr(ip), port};
    const sockaddr_in address = detail::tcpAddress(ip, port);
    if (::bind(m_listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        report(tcp_site::kServerBind, "bind");
        m_listening.reset();
        return false;
    }
    if (::listen(m_listening.get(), maxClients) != 0) {
        report(tcp_site::kServerListen, "listen");
        m_listening.reset();
        return false;
    }
    m_running = true;
    if (!detail::launchThread(m_cleanUp, [this] { cleanUpThread(); }) ||
        !detail::launchThread(m_accept, [this] { acceptThread(); })) {
        report(tcp_site::kServerListen, "thread");
        disconnect();
        return false;
    }
    return true;
}

void TcpServerPrivate::disconnect() {
    m_running = false;
    {
        detail::Lock lock(m_threadsMutex);
        m_stopping = true;
    }
    m_threadsChanged.notify_all();
    m_listening.wakeReader();
    if (m_accept.joinable())
        m_accept.join(); // from here on no client is added
    {
        detail::Lock lock(m_clientsMutex);
        for (const auto& [fd, client] : m_clients)
            detail::endStream(client->socket);
    }
    if (m_cleanUp.joinable())
        m_cleanUp.join();
    std::list<std::thread> receivers;
    {
        detail::Lock lock(m_threadsMutex);
        receivers.swap(m_receivers);
    }
    for (std::thread& receiver : receivers)
        receiver.join();
    {
        detail::Lock lock(m_threadsMutex);
        m_ended.clear();
        m_stopping = false;
    }
    m_listening.reset();
    detail::Lock lock(m_clientsMutex);
    m_clients.clear();
}

// --------------------------------------------------------------------------------------------- accepting

void TcpServerPrivate::acceptThread() {
    std::printf("TCP Server: bind %s %d\r\n", m_bound.address.c_str(), m_bound.port);
    pollfd readable{m_listening.get(), POLLIN, 0};
    while (m_running) {
        const int ready = ::poll(&readable, 1, kAcceptTimeOutMs);
        if (ready < 0 && errno != EINTR) {
            report(tcp_site::kServerSelect, "select::rfds");
            return;
        }
        if (ready <= 0 || !m_running)
            continue;
        sockaddr_in from{};
        socklen_t length = sizeof from;
        detail::Descriptor socket = detail::ownSocket(
            ::accept4(m_listening.get(), reinterpret_cast<sockaddr*>(&from), &length, SOCK_CLOEXEC));
        if (socket.isOpen()) {
            welcome(std::move(socket), from);
        } else if (errno != EAGAIN && errno != EINTR) {
            report(tcp_site::kServerAccept, "accept");
            detail::Lock lock(m_threadsMutex);
            m_threadsChanged.wait_for(lock, kPauseAfterFailedAccept,
                                      [this]() REQUIRES(m_threadsMutex) { return m_stopping; });
        }
    }
}

void TcpServerPrivate::welcome(detail::Descriptor socket, const sockaddr_in& from) {
    if (numOfClients() >= static_cast<std::uint64_t>(m_limit)) // a negative limit is none
        return;
    const int fd = socket.get();
    const ClientPtr client(
        new Client{std::move(socket), {transAddr(from.sin_addr.s_addr), ntohs(from.sin_port)}, m_bound});
    if (!detail::setOption(client->socket, SOL_SOCKET, SO_RCVTIMEO, detail::kTcpTimeOut))
        report(tcp_site::kServerReceiveTimeOut, "setsockopt::SO_RCVTIMEO");
    detail::askSilentPeer(client->socket);
    if (!detail::setOption(client->socket, SOL_SOCKET, SO_SNDTIMEO, detail::kTcpTimeOut))
        report(tcp_site::kServerSendTimeOut, "setsockopt::SO_SNDTIMEO");
    {
        detail::Lock lock(m_clientsMutex);
        if (!m_clients.emplace(fd, client).second) { // somebody closed a client's number behind our back
            std::printf("Warning:A Repeat client sock\n");
            return;
        }
    }
    if (m_listener != nullptr)
        m_listener->OnTcpClientConnected(fd, client->peer.address.c_str(), client->peer.port);
    try {
        startReceiver(client);
    } catch (const std::exception& error) { // no thread, no memory
        const auto* const refused = dynamic_cast<const std::system_error*>(&error);
        errno = refused != nullptr ? refused->code().value() : ENOMEM;
        report(tcp_site::kServerAccept, "thread");
        dismiss(client);
    }
}

void TcpServerPrivate::startReceiver(const ClientPtr& client) {
    std::unique_ptr<char[]> buffer(new char[kReceiveBuffer]);
    std::list<std::thread> entry(1);
    const int clients = number(numOfClients());
    detail::Lock lock(m_threadsMutex);
    std::printf("TCP Server(%s:%d): client %s:%d connect, clients num %d recv thread %d ...\r\n",
                m_bound.address.c_str(), m_bound.port, client->peer.address.c_str(), client->peer.port,
                clients, number(m_receivers.size() + 1));
    entry.front() =
        detail::startThread([this, client, kept = std::move(buffer)] { receiveThread(client, kept.get()); });
    m_receivers.splice(m_receivers.end(), entry);
}

// --------------------------------------------------------------------------------------------- receiving

void TcpServerPrivate::receiveThread(const ClientPtr& client, char* buffer) {
    const int fd = client->socket.get();
    while (m_running && !client->closed) {
        const ssize_t count = ::recv(fd, buffer, kReceiveBuffer, 0);
        const bool timedOut = count < 0 && (errno == EAGAIN || errno == EINTR);
        if (count == 0 || (count < 0 && !timedOut) || (timedOut && detail::isPeerGone(client->socket)))
            break;
        if (count > 0 && !client->closed && m_listener != nullptr)
            m_listener->OnTcpDataReceived(fd, client->peer.address.c_str(), client->peer.port, buffer,
                                          static_cast<int>(count));
    }
    if (!m_running && !client->closed)
        return; // disconnect() does the rest
    dismiss(client);
    {
        detail::Lock lock(m_threadsMutex);
        m_ended.push_back(std::this_thread::get_id());
    }
    m_threadsChanged.notify_all();
}

/// The end of one client. Its number is free again when the last thread that holds it lets go.
void TcpServerPrivate::dismiss(const ClientPtr& client) {
    const int fd = client->socket.get();
    {
        detail::Lock lock(m_clientsMutex);
        if (const auto found = m_clients.find(fd); found != m_clients.end() && found->second == client)
            m_clients.erase(found);
    }
    client->close();
    std::printf("TCP Server(%s:%d): client %s:%d disconnect ...\r\n", m_bound.address.c_str(), m_bound.port,
                client->peer.address.c_str(), client->peer.port);
    if (m_listener != nullptr)
        m_listener->OnTcpClientDisconnected(fd, client->peer.address.c_str(), client->peer.port);
}

void TcpServerPrivate::cleanUpThread() {
    detail::Lock lock(m_threadsMutex);
    for (;;) {
        m_threadsChanged.wait(lock,
                              [this]() REQUIRES(m_threadsMutex) { return m_stopping || !m_ended.empty(); });
        if (m_ended.empty())
            return;
        const auto found = std::ranges::find(m_receivers, m_ended.front(), &std::thread::get_id);
        m_ended.pop_front();
        std::list<std::thread> ended;
        ended.splice(ended.end(), m_receivers, found);
        lock.unlock();
        ended.front().join();
        const int clients = number(numOfClients());
        lock.lock();
        std::printf("TCP Server(%s:%d): clients num %d recv thread %d ...\r\n", m_bound.address.c_str(),
                    m_bound.port, clients, number(m_receivers.size()));
    }
}

std::size_t TcpServerPrivate::numOfClients() const {
    detail::Lock lock(m_clientsMutex);
    return m_clients.size();
}

int TcpServerPrivate::closeClient(int fd) {
    ClientPtr client;
    {
        detail::Lock lock(m_clientsMutex);
        if (const auto found = m_clients.find(fd); found != m_clients.end()) {
            client = found->second;
            m_clients.erase(found);
        }
    }
    if (client == nullptr) {
        errno = EBADF;
        return -1;
    }
    client->close(); // its receive thread notices and does the rest
    return 0;
}

// ----------------------------------------------------------------------------------------------- sending

void TcpServerPrivate::sendToAll(std::size_t length, const Send& send, const detail::SourceSite& site) {
    std::vector<ClientPtr> clients;
    {
        detail::Lock lock(m_clientsMutex);
        for (const auto& [fd, client] : m_clients)
            clients.push_back(client);
    }
    const auto tell = [&site](const Client& client, ssize_t sent) {
        if (sent < 0)
            detail::reportSocketError(site, client.server.address.c_str(), client.server.port, "send");
        else if (sent == 0)
            std::printf("Server send 0Byte\n");
    };
    // First to each what the system takes at once; a thread only for who would have to be waited for.
    std::vector<std::thread> threads;
    std::vector<std::pair<ClientPtr, std::size_t>> waiting; // with the bytes sent so far
    for (const ClientPtr& client : clients) {
        const ssize_t sent = send(client->socket, MSG_DONTWAIT, 0);
        if (sent < 0 ? errno == EAGAIN : static_cast<std::size_t>(sent) < length)
            waiting.emplace_back(client, std::max<ssize_t>(sent, 0));
        else
            tell(*client, sent);
    }
    threads.reserve(waiting.size());
    for (const auto& [client, begun] : waiting) {
        const auto sendRest = [&send, &tell, &client = client, begun = begun] {
            const ssize_t sent = send(client->socket, 0, begun);
            if (begun == 0) // else the send as a whole has been a short one, which is no error
                tell(*client, sent);
        };
        try {
            threads.push_back(detail::startThread(sendRest));
        } catch (const std::system_error&) { // no thread to be had
            sendRest();
        }
    }
    for (std::thread& thread : threads)
        thread.join();
}

void TcpServerPrivate::sendData(const char* data, unsigned int len) {
    sendToAll(
        len,
        [=](const detail::Descriptor& socket, int flags, std::size_t skipped) {
            return detail::sendBytes(socket, data + skipped, len - skipped, flags);
        },
        tcp_site::kServerSend);
}

void TcpServerPrivate::sendMultipleDatas(const detail::Parts& parts) {
    std::size_t length = 0;
    for (const auto& [data, size] : parts)
        length += static_cast<std::size_t>(size);
    sendToAll(
        length,
        [&](const detail::Descriptor& socket, int flags, std::size_t skipped) {
            return detail::sendParts(socket, parts, flags, skipped);
        },
        tcp_site::kServerSendParts);
}

bool TcpServerPrivate::sendData(int fd, const char* data, unsigned int len) {
    ClientPtr client;
    {
        detail::Lock lock(m_clientsMutex);
        if (const auto found = m_clients.find(fd); found != m_clients.end())
            client = found->second;
    }
    if (client == nullptr) {
        std::printf("socket is not exist\n");
        return false;
    }
    const ssize_t sent = detail::sendBytes(client->socket, data, len);
    if (sent < 0)
        std::printf("Server send fd %d error!\n", fd);
    else if (sent == 0)
        std::printf("Server send fd %d 0Byte!\n", fd);
    return sent > 0;
}

bool TcpServerPrivate::sendData(const char* addr, int port, const char* data, unsigned int len) {
    detail::Lock lock(m_clientsMutex);
    const auto found = std::find_if(m_clients.begin(), m_clients.end(), [&](const auto& entry) {
        const Endpoint& peer = entry.second->peer;
        return peer.address.starts_with(addr) && peer.port == port;
    });
    if (found == m_clients.end()) {
        std::printf("address port %d is not exist!\n", port);
        return false;
    }
    const ssize_t sent = detail::sendBytes(found->second->socket, data, len);
    if (sent < 0)
        std::printf("Server send port %d error!\n", port);
    else if (sent == 0)
        std::printf("Server send port %d 0Byte!\n", port);
    return sent > 0;
}

} // namespace net
