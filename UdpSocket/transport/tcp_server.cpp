#include <UdpSocket/tcpsocket.h>

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/transport/tcp_outgoing.h>
#include <UdpSocket/transport/tcp_sites.h>
#include <UdpSocket/transport/tcp_stream.h>
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
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

// Clients can come and go as fast as they like.
detail::LineLimit s_connectLines;
detail::LineLimit s_disconnectLines;
detail::LineLimit s_countLines;
detail::LineLimit s_sendLines; // nor need they read

/// Returns when there are bytes from it, or room for some to it, or when it is time to look at the running
/// flag. What has happened the calls that follow find.
void awaitEvent(const detail::Descriptor& socket) {
    pollfd event{socket.get(), POLLIN | POLLOUT, 0};
    ::poll(&event, 1, static_cast<int>(detail::kTcpTimeOut.count()));
}

} // namespace

/// Each client is one shared object that owns the descriptor: the table and every thread that receives from
/// or sends to the client hold it, so that the number is not given to another connection while one of them
/// may use it.
///
/// Threads, all from connect to disconnect: the accept thread, one receive thread a client, and the clean-up
/// thread, which joins receive threads that have ended. A receive thread also sends what its client has not
/// taken in time, beyond the client's own end of stream. Sends to all have one thread for each client that
/// does not take everything at once, joined before they return. Life cycle: disconnect shuts the sockets,
/// which wakes the threads, and joins them. Errors: as TcpServer says; a client that the system refuses
/// memory or a thread for is dropped.
class TcpServerPrivate : public detail::ProcessBound {
public:
    explicit TcpServerPrivate(iTcpDataListener* listener) : m_listener(listener) {}
    ~TcpServerPrivate() { disconnect(); }

    bool connect(in_addr_t ip, unsigned short port, int maxClients);
    void disconnect();
    void notifyForQuit() { m_running = false; }
    std::size_t numOfClients() const;
    int closeClient(int fd);

    void sendData(const char* data, unsigned int len);
    void sendMultipleDatas(const detail::Parts& parts);
    bool sendData(int fd, const char* data, unsigned int len);
    bool sendData(const char* addr, int port, const char* data, unsigned int len);

private:
    struct Endpoint {
        std::string address;
        unsigned short port = 0; // host order
    };
    struct Client {
        /// Ends the connection by the application's wish.
        void close() {
            closed = true;
            detail::endStream(socket);
        }

        const detail::Descriptor socket;
        const Endpoint peer;
        const detail::ErrorReporter server; // where it was accepted: a send may outlast that
        std::atomic<bool> closed = false;
        detail::Outgoing outgoing{socket};
    };
    using ClientPtr = std::shared_ptr<Client>;
    using Clients = std::map<int, ClientPtr>; // by descriptor
    struct Receiver {
        std::thread thread;
        bool ended = false; // and is to be joined
    };
    using Buffer = std::unique_ptr<char[]>;
    /// A send under way to a client that is kept as long.
    struct ClientSending {
        ClientSending(const ClientPtr& to, const detail::Message& message)
            : client(to), sending(to->outgoing, message) {}
        const ClientPtr client;
        detail::Sending sending;
        bool waits = false;
    };

    void acceptThread();
    void addClient(detail::Descriptor socket, const sockaddr_in& from);
    bool startReceiver(const ClientPtr& client, Buffer buffer, std::list<Receiver> entry);
    void receiveThread(const ClientPtr& client, Buffer buffer, Receiver& self);
    void removeClient(const ClientPtr& client, bool peerEnded);
    void sendLeftovers(const ClientPtr& client);
    void cleanUpThread();
    static bool sendToOne(detail::Sending& sending, const char* kind, int number);
    void sendToAll(const detail::Message& message, const detail::ReportSite& site);

    iTcpDataListener* const m_listener;
    std::atomic<bool> m_running = false;

    // Set while no thread runs.
    detail::Descriptor m_listening;
    detail::ErrorReporter m_bound{"0.0.0.0", 0};
    int m_limit = 0;
    std::thread m_accept;
    std::thread m_cleanUp;

    mutable detail::Mutex m_clientsMutex;
    Clients m_clients GUARDED_BY(m_clientsMutex);
    Clients m_leaving GUARDED_BY(m_clientsMutex); // no clients any more, while their last bytes go out

    detail::Mutex m_threadsMutex; // never held together with m_clientsMutex
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
    {
        detail::Lock lock(m_clientsMutex);
        for (const Clients* clients : {&m_clients, &m_leaving})
            for (const auto& [fd, client] : *clients)
                detail::endStream(client->socket);
    }
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
    detail::Lock lock(m_clientsMutex);
    m_clients.clear();
    m_leaving.clear();
}

// --------------------------------------------------------------------------------------------- accepting

void TcpServerPrivate::acceptThread() {
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
    if (numOfClients() >= static_cast<std::uint64_t>(m_limit)) // a negative limit is none
        return;
    const int fd = socket.get();
    const ClientPtr client(
        new Client{std::move(socket), {transAddr(from.sin_addr.s_addr), ntohs(from.sin_port)}, m_bound});
    Buffer buffer(new char[kReceiveBuffer]);
    std::list<Receiver> entry(1);
    if (!detail::setOption(client->socket, SOL_SOCKET, SO_RCVTIMEO, detail::toTimeval(detail::kTcpTimeOut)))
        m_bound.report(tcp_site::kServerReceiveTimeOut);
    detail::enableKeepAlive(client->socket);
    if (!detail::setOption(client->socket, SOL_SOCKET, SO_SNDTIMEO, detail::toTimeval(detail::kTcpTimeOut)))
        m_bound.report(tcp_site::kServerSendTimeOut);
    bool added;
    {
        detail::Lock lock(m_clientsMutex);
        added = m_clients.emplace(fd, client).second;
    }
    if (!added) { // somebody closed a client's number behind our back
        std::printf("Warning:A Repeat client sock\n");
        return;
    }
    const bool announced = detail::runStep("TcpServer: a client", [&] {
        if (m_listener != nullptr)
            m_listener->OnTcpClientConnected(fd, client->peer.address.c_str(), client->peer.port);
    });
    if (!announced || !startReceiver(client, std::move(buffer), std::move(entry)))
        removeClient(client, false);
}

/// @param entry one, for the list of receivers
bool TcpServerPrivate::startReceiver(const ClientPtr& client, Buffer buffer, std::list<Receiver> entry) {
    const int clients = number(numOfClients());
    int threads;
    {
        detail::Lock lock(m_threadsMutex);
        threads = number(m_receivers.size()) + 1;
    }
    s_connectLines.print(stdout,
                         "TCP Server(%s:%d): client %s:%d connect, clients num %d recv thread %d ...\r\n",
                         m_bound.address().c_str(), m_bound.port(), client->peer.address.c_str(),
                         client->peer.port, clients, threads);
    bool started;
    {
        detail::Lock lock(m_threadsMutex);
        Receiver& self = entry.front();
        started = detail::launchThread(self.thread, "radar-srv-recv",
                                       [this, client, &self, kept = std::move(buffer)]() mutable {
                                           receiveThread(client, std::move(kept), self);
                                       });
        if (started)
            m_receivers.splice(m_receivers.end(), entry);
    }
    if (!started)
        m_bound.report(tcp_site::kServerReceiverThread);
    return started;
}

// --------------------------------------------------------------------------------------------- receiving

void TcpServerPrivate::receiveThread(const ClientPtr& client, Buffer buffer, Receiver& self) {
    bool peerEnded = false;
    while (m_running && !client->closed) {
        int flags = 0;
        if (client->outgoing.isBehind()) {
            awaitEvent(client->socket);
            client->outgoing.catchUp();
            flags = MSG_DONTWAIT;
        }
        const ssize_t count = ::recv(client->socket.get(), buffer.get(), kReceiveBuffer, flags);
        const bool timedOut = count < 0 && (errno == EAGAIN || errno == EINTR);
        peerEnded = count == 0;
        if (peerEnded || (count < 0 && !timedOut) || (timedOut && detail::isPeerGone(client->socket)))
            break;
        if (count > 0 && !client->closed && m_listener != nullptr)
            detail::runStep("TcpServer: received data", [&] {
                m_listener->OnTcpDataReceived(client->socket.get(), client->peer.address.c_str(),
                                              client->peer.port, buffer.get(), static_cast<int>(count));
            });
    }
    if (!m_running && !client->closed)
        return; // disconnect() does the rest
    buffer.reset();
    removeClient(client, peerEnded && !client->closed);
    {
        detail::Lock lock(m_threadsMutex);
        self.ended = true;
    }
    m_threadsChanged.notify_all();
}

/// The end of one client. Its number is free again when the last thread that holds it lets go.
/// @param peerEnded it has ended its own direction only, and may still read
void TcpServerPrivate::removeClient(const ClientPtr& client, bool peerEnded) {
    const int fd = client->socket.get();
    {
        detail::Lock lock(m_clientsMutex);
        if (const auto found = m_clients.find(fd); found != m_clients.end() && found->second == client)
            m_leaving.insert(m_clients.extract(found)); // from here on no send to it begins
    }
    const bool sendsOn = peerEnded && !client->outgoing.isIdle();
    if (!sendsOn)
        client->close();
    s_disconnectLines.print(stdout, "TCP Server(%s:%d): client %s:%d disconnect ...\r\n",
                            m_bound.address().c_str(), m_bound.port(), client->peer.address.c_str(),
                            client->peer.port);
    detail::runStep("TcpServer: a client", [&] {
        if (m_listener != nullptr)
            m_listener->OnTcpClientDisconnected(fd, client->peer.address.c_str(), client->peer.port);
    });
    if (sendsOn)
        sendLeftovers(client);
    if (sendsOn && !m_running)
        return; // told to quit: the stream stands until disconnect()
    detail::Lock lock(m_clientsMutex);
    if (const auto found = m_leaving.find(fd); found != m_leaving.end() && found->second == client)
        m_leaving.erase(found);
}

/// Lets sends that are under way to a peer that has ended its own direction go on, and their rest, as long as
/// it takes something now and then.
void TcpServerPrivate::sendLeftovers(const ClientPtr& client) {
    using Clock = std::chrono::steady_clock;
    detail::Outgoing& outgoing = client->outgoing;
    outgoing.awaitSenders();
    std::size_t left = outgoing.restLength();
    for (auto progress = Clock::now();
         m_running && left > 0 && Clock::now() - progress < detail::kLongestSilence;) {
        outgoing.awaitRoom(detail::kTcpTimeOut);
        outgoing.catchUp();
        if (const std::size_t before = std::exchange(left, outgoing.restLength()); left < before)
            progress = Clock::now();
    }
    if (m_running)
        client->close();
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
        const int clients = number(numOfClients());
        lock.lock();
        const int threads = number(m_receivers.size());
        lock.unlock();
        s_countLines.print(stdout, "TCP Server(%s:%d): clients num %d recv thread %d ...\r\n",
                           m_bound.address().c_str(), m_bound.port(), clients, threads);
        lock.lock();
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

void TcpServerPrivate::sendToAll(const detail::Message& message, const detail::ReportSite& site) {
    // All memory is taken before the first byte goes out: no message is cut short for want of it.
    std::list<ClientSending> sendings;
    {
        detail::Lock lock(m_clientsMutex);
        for (const auto& [fd, client] : m_clients)
            sendings.emplace_back(client, message);
    }
    std::vector<std::thread> threads;
    threads.reserve(sendings.size());
    // First to each what the system takes at once; a thread only for who would have to be waited for.
    for (ClientSending& each : sendings)
        each.waits = !each.sending.sendAtOnce();
    for (ClientSending& each : sendings) {
        if (!each.waits)
            continue;
        const auto finish = [&sending = each.sending] { sending.finish(); };
        if (std::thread& thread = threads.emplace_back();
            !detail::launchThread(thread, "radar-srv-send", finish))
            finish(); // no thread to be had
    }
    for (std::thread& thread : threads)
        if (thread.joinable())
            thread.join();
    for (const auto& [client, sending, waits] : sendings) {
        errno = sending.code();
        if (sending.result() < 0)
            client->server.report(site, s_sendLines);
        else if (sending.result() == 0)
            std::printf("Server send 0Byte\n");
    }
}

void TcpServerPrivate::sendData(const char* data, unsigned int len) {
    sendToAll({data, len}, tcp_site::kServerSend);
}

void TcpServerPrivate::sendMultipleDatas(const detail::Parts& parts) {
    sendToAll(detail::Message(parts), tcp_site::kServerSendParts);
}

bool TcpServerPrivate::sendData(int fd, const char* data, unsigned int len) {
    const detail::Message message(data, len);
    std::optional<ClientSending> to;
    {
        detail::Lock lock(m_clientsMutex);
        if (const auto found = m_clients.find(fd); found != m_clients.end())
            to.emplace(found->second, message);
    }
    if (!to) {
        std::printf("socket is not exist\n");
        return false;
    }
    return sendToOne(to->sending, "fd", fd);
}

bool TcpServerPrivate::sendData(const char* addr, int port, const char* data, unsigned int len) {
    const detail::Message message(data, len);
    std::optional<ClientSending> to;
    {
        detail::Lock lock(m_clientsMutex);
        const auto found = std::ranges::find_if(m_clients, [&](const auto& entry) {
            const Endpoint& peer = entry.second->peer;
            return peer.address.starts_with(addr) && peer.port == port;
        });
        if (found != m_clients.end())
            to.emplace(found->second, message);
    }
    if (!to) {
        std::printf("address port %d is not exist!\n", port);
        return false;
    }
    return sendToOne(to->sending, "port", port);
}

/// Sends, on the caller's thread, and says what went wrong. @return whether anything is sent
bool TcpServerPrivate::sendToOne(detail::Sending& sending, const char* kind, int number) {
    sending.finish();
    if (sending.result() < 0)
        std::printf("Server send %s %d error!\n", kind, number);
    else if (sending.result() == 0)
        std::printf("Server send %s %d 0Byte!\n", kind, number);
    errno = sending.code();
    return sending.result() > 0;
}

TcpServer::TcpServer(iTcpDataListener* listener) : d(new TcpServerPrivate(listener)) {}
TcpServer::~TcpServer() {
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
    return d->numOfClients() > 0;
}
int TcpServer::numOfClients() {
    return static_cast<int>(d->numOfClients());
}
int TcpServer::closeClient(int fd) {
    return d->closeClient(fd);
}
void TcpServer::sendData(const char* data, unsigned int len) {
    d->sendData(data, len);
}
void TcpServer::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts) {
    d->sendMultipleDatas(parts);
}
bool TcpServer::sendData(int fd, const char* data, unsigned int len) {
    return d->sendData(fd, data, len);
}
bool TcpServer::sendData(const char* addr, int port, const char* data, unsigned int len) {
    return d->sendData(addr, port, data, len);
}

} // namespace net
