#include <UdpSocket/tcpsocket.h>

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/transport/tcp_client_table.h>
#include <UdpSocket/transport/tcp_server_client.h>
#include <UdpSocket/transport/tcp_sites.h>
#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <list>
#include <memory>
#include <thread>
#include <utility>

namespace net {

namespace {

using namespace std::chrono_literals;
namespace tcp_site = detail::tcp_site;

constexpr int kAcceptTimeOutMs = 500;           // how often the accept thread looks at the running flag
constexpr auto kPauseAfterFailedAccept = 100ms; // a lack of descriptors lasts

int number(std::size_t count) {
    return static_cast<int>(count);
}

// Clients can come and go as fast as they like.
detail::LineLimit s_connectLines;
detail::LineLimit s_disconnectLines;
detail::LineLimit s_countLines;
detail::LineLimit s_noThreadLines;

} // namespace

/// Threads, all from connect to disconnect: the accept thread, one receive thread a client, and the clean-up
/// thread, which joins receive threads that have ended. A receive thread also sends what its client has not
/// taken in time, beyond the client's own end of stream. Life cycle: disconnect shuts the sockets, which
/// wakes the threads, and joins them. Errors: as TcpServer says; a client that the system refuses memory or a
/// thread for is dropped.
class TcpServerPrivate : public detail::ProcessBound {
public:
    explicit TcpServerPrivate(iTcpDataListener* listener) : m_listener(listener) {}
    ~TcpServerPrivate() { disconnect(); }

    bool connect(in_addr_t ip, unsigned short port, int maxClients);
    void disconnect();
    void notifyForQuit() { m_running = false; }
    /// Inside a callback that exits: the other threads end, and call nobody any more.
    void fallSilent() {
        m_silent = true;
        m_running = false;
    }
    detail::ClientTable& clients() { return m_clients; }

private:
    using ClientPtr = detail::ServerClientPtr;
    struct Receiver {
        std::thread thread;
        bool ended = false; // and is to be joined
    };

    void acceptThread();
    void addClient(detail::Descriptor socket, const sockaddr_in& from);
    bool startReceiver(const ClientPtr& client, std::list<Receiver> entry);
    void receiveThread(const ClientPtr& client, Receiver& self);
    void removeClient(const ClientPtr& client, bool peerEnded);
    void cleanUpThread();

    iTcpDataListener* const m_listener;
    std::atomic<bool> m_running = false;
    std::atomic<bool> m_silent = false;

    // Set while no thread runs.
    detail::Descriptor m_listening;
    detail::ErrorReporter m_bound{"0.0.0.0", 0};
    int m_limit = 0;
    std::thread m_accept;
    std::thread m_cleanUp;

    detail::ClientTable m_clients;

    detail::Mutex m_threadsMutex; // not held while the table is used
    std::list<Receiver> m_receivers GUARDED_BY(m_threadsMutex);
    bool m_stopping GUARDED_BY(m_threadsMutex) = false;
    detail::Condition m_threadsChanged;
};

// ------------------------------------------------------------------------------------ starting, stopping

bool TcpServerPrivate::connect(in_addr_t ip, unsigned short port, int maxClients) {
    disconnect();
    m_limit = maxClients;
    m_listening = detail::openSocket(SOCK_STREAM | SOCK_NONBLOCK);
    if (!m_listening.isOpen()) {
        m_bound.report(tcp_site::kServerSocket);
        return false;
    }
    if (!detail::setOption(m_listening, SOL_SOCKET, SO_REUSEADDR, 1)) {
        m_bound.report(tcp_site::kServerReuseAddress);
        return false;
    }
    m_bound.set(transAddr(ip), port);
    if (!detail::bindTo(m_listening, detail::makeAddress(ip, port))) {
        m_bound.report(tcp_site::kServerBind);
        m_listening.reset();
        return false;
    }
    if (::listen(m_listening.get(), maxClients) != 0) {
        m_bound.report(tcp_site::kServerListen);
        m_listening.reset();
        return false;
    }
    m_running = true;
    if (!detail::launchThread(m_cleanUp, "radar-srv-clean", [this] { cleanUpThread(); }) ||
        !detail::launchThread(m_accept, "radar-srv-acc", [this] { acceptThread(); })) {
        m_bound.report(tcp_site::kServerThread);
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
    detail::wakeReader(m_listening);
    if (m_accept.joinable())
        m_accept.join(); // from here on no client is added
    m_clients.endStreams();
    if (m_cleanUp.joinable())
        m_cleanUp.join();
    std::list<Receiver> receivers;
    {
        detail::Lock lock(m_threadsMutex);
        receivers.swap(m_receivers);
    }
    for (Receiver& receiver : receivers)
        receiver.thread.join();
    {
        detail::Lock lock(m_threadsMutex);
        m_stopping = false;
    }
    m_listening.reset();
    m_clients.clear();
}

// --------------------------------------------------------------------------------------------- accepting

void TcpServerPrivate::acceptThread() {
    const Call calls(*this);
    std::printf("TCP Server: bind %s %d\r\n", m_bound.address().c_str(), m_bound.port());
    pollfd readable{m_listening.get(), POLLIN, 0};
    while (m_running) {
        const int ready = ::poll(&readable, 1, kAcceptTimeOutMs);
        if (ready < 0 && errno != EINTR) {
            m_bound.report(tcp_site::kServerSelect);
            return;
        }
        if (ready <= 0 || !m_running)
            continue;
        sockaddr_in from{};
        socklen_t length = sizeof from;
        detail::Descriptor socket = detail::ownSocket(
            ::accept4(m_listening.get(), reinterpret_cast<sockaddr*>(&from), &length, SOCK_CLOEXEC));
        if (socket.isOpen()) {
            detail::runStep("TcpServer: a client", [&] { addClient(std::move(socket), from); });
        } else if (errno != EAGAIN && errno != EINTR) {
            m_bound.report(tcp_site::kServerAccept);
            detail::Lock lock(m_threadsMutex);
            m_threadsChanged.wait_for(lock, kPauseAfterFailedAccept,
                                      [this]() REQUIRES(m_threadsMutex) { return m_stopping; });
        }
    }
}

void TcpServerPrivate::addClient(detail::Descriptor socket, const sockaddr_in& from) {
    if (m_clients.size() >= static_cast<std::uint64_t>(m_limit)) // a negative limit is none
        return;
    const auto client = std::make_shared<detail::ServerClient>(std::move(socket), from, m_bound);
    std::list<Receiver> entry(1);
    client->setOptions();
    if (!m_clients.add(client)) {
        std::printf("Warning:A Repeat client sock\n");
        return;
    }
    const bool announced = detail::runStep("TcpServer: a client", [&] {
        if (m_listener != nullptr)
            m_listener->OnTcpClientConnected(client->number(), client->address().c_str(), client->port());
    });
    if (!announced || !startReceiver(client, std::move(entry)))
        removeClient(client, false);
}

/// @param entry one, for the list of receivers
bool TcpServerPrivate::startReceiver(const ClientPtr& client, std::list<Receiver> entry) {
    const int clients = number(m_clients.size());
    int threads;
    {
        detail::Lock lock(m_threadsMutex);
        threads = number(m_receivers.size()) + 1;
    }
    s_connectLines.print(stdout,
                         "TCP Server(%s:%d): client %s:%d connect, clients num %d recv thread %d ...\r\n",
                         m_bound.address().c_str(), m_bound.port(), client->address().c_str(), client->port(),
                         clients, threads);
    bool started;
    {
        detail::Lock lock(m_threadsMutex);
        Receiver& self = entry.front();
        started = detail::launchThread(self.thread, "radar-srv-recv",
                                       [this, client, &self] { receiveThread(client, self); });
        if (started)
            m_receivers.splice(m_receivers.end(), entry);
    }
    if (!started)
        m_bound.report(tcp_site::kServerReceiverThread, s_noThreadLines);
    return started;
}

// --------------------------------------------------------------------------------------------- receiving

void TcpServerPrivate::receiveThread(const ClientPtr& client, Receiver& self) {
    const Call calls(*this);
    const bool peerEnded = client->receive(m_running, m_listener);
    if (!m_running && !client->isClosed())
        return; // disconnect() does the rest
    removeClient(client, peerEnded && !client->isClosed());
    {
        detail::Lock lock(m_threadsMutex);
        self.ended = true;
    }
    m_threadsChanged.notify_all();
}

/// The end of one client. Its number is free again when the last thread that holds it lets go.
/// @param peerEnded it has ended its own direction only, and may still read
void TcpServerPrivate::removeClient(const ClientPtr& client, bool peerEnded) {
    m_clients.beginLeaving(client);
    const bool sendsOn = peerEnded && !client->outgoing().isIdle();
    if (!sendsOn)
        client->close();
    s_disconnectLines.print(stdout, "TCP Server(%s:%d): client %s:%d disconnect ...\r\n",
                            m_bound.address().c_str(), m_bound.port(), client->address().c_str(),
                            client->port());
    detail::runStep("TcpServer: a client", [&] {
        if (m_listener != nullptr && !m_silent)
            m_listener->OnTcpClientDisconnected(client->number(), client->address().c_str(), client->port());
    });
    if (sendsOn)
        client->sendLeftovers(m_running);
    if (sendsOn && !m_running)
        return; // told to quit: the stream stands until disconnect()
    m_clients.endLeaving(client);
}

void TcpServerPrivate::cleanUpThread() {
    detail::Lock lock(m_threadsMutex);
    for (;;) {
        auto found = m_receivers.end();
        m_threadsChanged.wait(lock, [this, &found]() REQUIRES(m_threadsMutex) {
            found = std::ranges::find_if(m_receivers, &Receiver::ended);
            return m_stopping || found != m_receivers.end();
        });
        if (found == m_receivers.end())
            return;
        std::list<Receiver> ended;
        ended.splice(ended.end(), m_receivers, found);
        lock.unlock();
        ended.front().thread.join();
        const int clients = number(m_clients.size());
        lock.lock();
        const int threads = number(m_receivers.size());
        lock.unlock();
        s_countLines.print(stdout, "TCP Server(%s:%d): clients num %d recv thread %d ...\r\n",
                           m_bound.address().c_str(), m_bound.port(), clients, threads);
        lock.lock();
    }
}

TcpServer::TcpServer(iTcpDataListener* listener) : d(new TcpServerPrivate(listener)) {}
TcpServer::~TcpServer() {
    if (d->isCalling()) // where it is left
        d->fallSilent();
    detail::destroy(d);
}
bool TcpServer::connect(unsigned short port, int maxClients) {
    return d->connect(INADDR_ANY, port, maxClients);
}
bool TcpServer::connect(const char* ip, unsigned short port, int maxClients) {
    return d->connect(::inet_addr(ip), port, maxClients);
}
void TcpServer::disconnect() {
    d->disconnect();
}
void TcpServer::notifyForQuit() {
    d->notifyForQuit();
}
bool TcpServer::isConnected() const {
    return d->clients().size() > 0;
}
int TcpServer::numOfClients() {
    return number(d->clients().size());
}
int TcpServer::closeClient(int fd) {
    if (d->clients().close(fd))
        return 0;
    errno = EBADF;
    return -1;
}
void TcpServer::sendData(const char* data, unsigned int len) {
    d->clients().sendToAll({data, len}, tcp_site::kServerSend);
}
void TcpServer::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts) {
    d->clients().sendToAll(detail::Message(parts), tcp_site::kServerSendParts);
}
bool TcpServer::sendData(int fd, const char* data, unsigned int len) {
    return d->clients().sendTo(fd, {data, len});
}
bool TcpServer::sendData(const char* addr, int port, const char* data, unsigned int len) {
    return d->clients().sendTo(addr, port, {data, len});
}

} // namespace net
