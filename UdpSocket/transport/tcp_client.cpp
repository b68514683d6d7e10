#include <UdpSocket/tcpsocket.h>

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/scope_exit.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/transport/tcp_connection.h>
#include <UdpSocket/transport/tcp_send_queue.h>
#include <UdpSocket/transport/tcp_sites.h>
#include <UdpSocket/transport/tcp_stream.h>
#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <thread>

namespace net {

namespace {

using namespace std::chrono_literals;
namespace tcp_site = detail::tcp_site;
using detail::Connection;
using detail::ConnectionPtr;
using State = Connection::State;

constexpr int kTicksBetweenAttempts = 10;      // an attempt or a probe every eleventh idle tick
constexpr auto kPauseAfterTimeOut = 10ms;      // of the receive thread
constexpr std::size_t kReceiveBuffer = 204800; // longest piece given to the listener
constexpr char kProbe[] = "check";             // sent with its zero byte

} // namespace

/// Threads: see TcpClient. The auto-connect thread and the queue thread live from constructor to destructor;
/// a receive thread is joined before the next one starts, after the next Connected. Life cycle: the
/// destructor stops every pause, shuts the socket (which wakes what blocks on it, connecting included) and
/// joins. Errors: as TcpClient says.
class TcpClientPrivate : public detail::ProcessBound {
public:
    TcpClientPrivate(iTcpDataListener* listener, in_addr_t ip, unsigned short port, unsigned int localIp);
    ~TcpClientPrivate();

    bool connectOnce();
    void setAutoConnectEnable(bool enable) { m_autoConnectEnabled = enable; }
    bool sendData(const char* data, unsigned int len);
    bool sendMultipleDatas(const detail::Parts& parts);
    bool asyncSendData(const char* data, unsigned int len);
    const sockaddr_in& server() const { return m_server; }
    bool isConnected() const { return current()->stands(); }
    void notifyForQuit() { m_running = false; }

private:
    ConnectionPtr current() const;
    bool running() const { return m_running && !m_ending.stopped(); }

    ConnectionPtr reset() REQUIRES(m_connectMutex);
    bool connectUnlessConnected();
    ConnectionPtr announced() const;
    void announceLoss(const ConnectionPtr& lost);
    bool othersAnnounce() const REQUIRES(m_stateMutex);
    void awaitOthersAnnouncements();
    void probeOrConnect();
    bool send(Connection& connection, const detail::Message& message, const char* call,
              const detail::ReportSite& site);

    void autoConnectThread();
    void pass();
    void receiveThread(const ConnectionPtr& connection, char* buffer);
    void queueThread();

    iTcpDataListener* const m_listener;
    const sockaddr_in m_server;
    const detail::ErrorReporter m_errors; // m_server's address as text, and its port
    const unsigned int m_localIp;         // network order
    std::atomic<bool> m_running = true;
    std::atomic<bool> m_autoConnectEnabled = true;
    std::atomic<int> m_idleTicks = 0; // half seconds since the last traffic
    detail::Pause m_ending;

    mutable detail::Mutex m_stateMutex;
    ConnectionPtr m_current GUARDED_BY(m_stateMutex);   // never null
    ConnectionPtr m_announced GUARDED_BY(m_stateMutex); // Connected was called for it, Disconnected was not
    std::list<std::thread::id> m_announcing GUARDED_BY(m_stateMutex); // that call Disconnected
    detail::Condition m_lossAnnounced;

    detail::SendQueue m_queue; // its mutex is taken after m_connectMutex and before m_stateMutex

    detail::Mutex m_connectMutex ACQUIRED_BEFORE(m_stateMutex); // one socket is made and connected at a time
    std::thread m_receiver GUARDED_BY(m_connectMutex);
    std::thread m_autoConnect;
    std::thread m_sender;
};

TcpClientPrivate::TcpClientPrivate(iTcpDataListener* listener, in_addr_t ip, unsigned short port,
                                   unsigned int localIp)
    : m_listener(listener), m_server(detail::makeAddress(ip, port)), m_errors(transAddr(ip), port),
      m_localIp(localIp), m_current(std::make_shared<Connection>(detail::Descriptor())) {
    std::signal(SIGPIPE, SIG_IGN);
    m_sender = detail::startThread("radar-tcp-queue", [this] { queueThread(); });
    try {
        m_autoConnect = detail::startThread("radar-tcp-conn", [this] { autoConnectThread(); });
    } catch (...) {
        m_ending.stop();
        m_queue.wake();
        m_sender.join();
        throw;
    }
}

TcpClientPrivate::~TcpClientPrivate() {
    m_running = false;
    m_ending.stop();
    current()->end();
    m_queue.wake();
    { detail::Lock lock(m_connectMutex); } // an attempt in progress ends now, a later one does not begin
    m_autoConnect.join();
    current()->end(); // when that attempt has just succeeded
    if (m_receiver.joinable())
        m_receiver.join();
    m_sender.join();
}

ConnectionPtr TcpClientPrivate::current() const {
    detail::Lock lock(m_stateMutex);
    return m_current;
}

// ------------------------------------------------------------------------------------------- connecting

/// Ends the current connection, lets go of it, for the new one may need its descriptor, and makes a new
/// socket with its options. Needs the connection lock.
ConnectionPtr TcpClientPrivate::reset() {
    auto none = std::make_shared<Connection>(detail::Descriptor());
    current()->end();
    {
        detail::Lock lock(m_stateMutex);
        m_current.swap(none);
    }
    none.reset();
    auto connection = std::make_shared<Connection>(detail::openSocket(SOCK_STREAM | SOCK_NONBLOCK));
    if (connection->socket.isOpen())
        connection->setOptions(m_localIp, m_errors);
    else
        m_errors.report(tcp_site::kClientSocket);
    detail::Lock lock(m_stateMutex);
    m_current = connection;
    return connection;
}

bool TcpClientPrivate::connectOnce() {
    if (const ConnectionPtr standing = announced()) {
        standing->end();
        announceLoss(standing);
    }
    return connectUnlessConnected();
}

/// Another thread's connection that came to stand meanwhile is kept. Connected is not called before every
/// Disconnected has returned.
bool TcpClientPrivate::connectUnlessConnected() {
    detail::Lock lock(m_connectMutex);
    for (;;) {
        if (m_ending.stopped())
            return false;
        ConnectionPtr found;
        {
            detail::Lock stateLock(m_stateMutex);
            found = m_announced;
            if (found == nullptr && !othersAnnounce())
                break;
        }
        if (found != nullptr && found->stands())
            return true;
        lock.unlock();
        if (found != nullptr)
            announceLoss(found);
        awaitOthersAnnouncements();
        lock.lock();
    }
    std::unique_ptr<char[]> buffer(new char[kReceiveBuffer]); // or no attempt is made
    const ConnectionPtr connection = reset();
    std::printf("tcp client try to connect (addr = %s,port = %u)\r\n", m_errors.address().c_str(),
                m_errors.port());
    if (!connection->connect(m_server, m_ending)) {
        std::printf("tcp client connected failed ...\r\n");
        return false;
    }
    std::printf("tcp client successfully connected (addr = %s,port = %u)\r\n", m_errors.address().c_str(),
                m_errors.port());
    {
        const detail::ScopeExit owed([&] { // a Disconnected, also when the listener has thrown
            if (connection->state() == State::kFresh)
                connection->end();
            {
                detail::Lock stateLock(m_stateMutex);
                m_announced = connection;
            }
            m_queue.setHeld(false);
        });
        m_queue.setHeld(true);
        const Call call(*this);
        if (m_listener != nullptr)
            m_listener->OnTcpClientConnected(0, m_errors.address().c_str(), m_errors.port());
        if (m_receiver.joinable())
            m_receiver.join(); // a listener that is still busy with old data delays what follows only
        connection->stand();
    }
    m_running = true;
    if (!detail::launchThread(m_receiver, "radar-tcp-recv", [this, connection, kept = std::move(buffer)] {
            receiveThread(connection, kept.get());
        })) {
        m_errors.report(tcp_site::kClientThread);
        connection->lose(State::kLost); // at once, and tried again like any other
        return false;
    }
    return true;
}

/// The connection that is owed a Disconnected, standing or lost, or null.
ConnectionPtr TcpClientPrivate::announced() const {
    detail::Lock lock(m_stateMutex);
    return m_announced;
}

/// Calls Disconnected for @p lost, unless another thread does so already. Needs the connection lock not to be
/// held: the listener may connect.
void TcpClientPrivate::announceLoss(const ConnectionPtr& lost) {
    std::list self{std::this_thread::get_id()};
    const auto entry = self.begin();
    {
        detail::Lock lock(m_stateMutex);
        if (m_announced != lost || m_ending.stopped())
            return;
        m_announced.reset();
        m_announcing.splice(m_announcing.end(), self);
    }
    const detail::ScopeExit returned([&] {
        {
            detail::Lock lock(m_stateMutex);
            m_announcing.erase(entry);
        }
        m_lossAnnounced.notify_all();
    });
    const Call call(*this);
    if (m_listener != nullptr)
        m_listener->OnTcpClientDisconnected(0, m_errors.address().c_str(), m_errors.port());
}

/// Whether others call Disconnected. Who does so itself may connect inside, and waits for nobody.
bool TcpClientPrivate::othersAnnounce() const {
    return !m_announcing.empty() &&
           std::ranges::find(m_announcing, std::this_thread::get_id()) == m_announcing.end();
}

void TcpClientPrivate::awaitOthersAnnouncements() {
    detail::Lock lock(m_stateMutex);
    m_lossAnnounced.wait(lock, [this]() REQUIRES(m_stateMutex) { return !othersAnnounce(); });
}

void TcpClientPrivate::autoConnectThread() {
    detail::runStep("TcpClient: a pass", [this] {
        detail::Lock lock(m_connectMutex);
        if (!current()->socket.isOpen() && !m_ending.stopped())
            reset();
    });
    while (running()) {
        detail::runStep("TcpClient: a pass", [this] { pass(); });
        m_ending.sleep(detail::timing().clientTick);
    }
}

void TcpClientPrivate::pass() {
    if (const ConnectionPtr connection = announced(); connection != nullptr && !connection->stands())
        announceLoss(connection);
    if (m_idleTicks++ < kTicksBetweenAttempts)
        return;
    m_idleTicks = 0;
    if (m_autoConnectEnabled)
        probeOrConnect();
}

void TcpClientPrivate::probeOrConnect() {
    ConnectionPtr connection = current();
    if (!connection->stands()) {
        connection.reset(); // an attempt may need its descriptor
        connectUnlessConnected();
        return;
    }
    ssize_t sent = 0;
    int code = 0;
    {
        const detail::Turns::Place place(connection->sends);
        if (!place.isFirst())
            return; // a send waits: not idle
        sent = detail::Message(kProbe, sizeof kProbe).send(connection->socket, 0, MSG_DONTWAIT);
        code = errno;
    }
    if (sent >= 0 || code == EAGAIN || m_ending.stopped()) // without room there is enough on its way
        return;
    std::printf("tcp client check error %d %d %d\r\n", static_cast<int>(sent), code, EPIPE);
    if (code == EPIPE) {
        connection->lose(State::kLost);
        announceLoss(connection);
        connection.reset();
        connectUnlessConnected();
    }
}

// -------------------------------------------------------------------------------------------- receiving

void TcpClientPrivate::receiveThread(const ConnectionPtr& connection, char* buffer) {
    const int fd = connection->socket.get();
    bool peerEnded = false;
    bool failed = false;
    while (m_running && connection->stands() && !peerEnded && !failed) {
        errno = 0; // a closed connection is reported with code 0
        const ssize_t count = ::recv(fd, buffer, kReceiveBuffer, 0);
        const bool timedOut = count < 0 && (errno == EAGAIN || errno == EINTR);
        if (!m_running || announced() != connection || connection->state() == State::kEnded)
            break; // nothing comes behind its Disconnected
        if (count > 0) {
            m_idleTicks = 0;
            if (m_listener != nullptr)
                detail::runStep("TcpClient: received data", [&] {
                    const Call call(*this);
                    m_listener->OnTcpDataReceived(fd, m_errors.address().c_str(), m_errors.port(), buffer,
                                                  static_cast<int>(count));
                });
        } else if (count == 0) {
            m_errors.report(tcp_site::kClientPeerClosed);
            peerEnded = true;
        } else if (timedOut && !detail::isPeerGone(connection->socket)) {
            m_ending.sleep(kPauseAfterTimeOut);
        } else {
            if (timedOut)
                errno = ETIMEDOUT;
            m_errors.report(tcp_site::kClientReceive);
            failed = true;
        }
    }
    std::printf("tcp client (addr = %s,port = %u) receive thread out ....\r\n", m_errors.address().c_str(),
                m_errors.port());
    m_queue.between([&] { connection->lose(peerEnded ? State::kPeerEnded : State::kLost); });
    if (failed)
        detail::endStream(connection->socket); // a thread that still waits to send would not see it otherwise
}

// ---------------------------------------------------------------------------------------------- sending

bool TcpClientPrivate::sendData(const char* data, unsigned int len) {
    const ConnectionPtr connection = current();
    return connection->stands() && send(*connection, {data, len}, "send", tcp_site::kClientSend);
}

bool TcpClientPrivate::sendMultipleDatas(const detail::Parts& parts) {
    const ConnectionPtr connection = current();
    return connection->stands() &&
           send(*connection, detail::Message(parts), "writev", tcp_site::kClientSendParts);
}

/// Sends when those who came before have done so. Counts what is sent as traffic; reports what is not, and
/// marks that connection lost.
bool TcpClientPrivate::send(Connection& connection, const detail::Message& message, const char* call,
                            const detail::ReportSite& site) {
    ssize_t result = 0;
    int code = 0;
    bool endedHere = false;
    {
        detail::Turns::Place place(connection.sends);
        place.waitUntilFirst();
        if (!connection.takesBytes())
            return false; // lost meanwhile
        result = detail::sendAll(connection.socket, message);
        code = errno;
        endedHere = connection.state() == State::kEnded || m_ending.stopped();
        if (result <= 0)
            connection.lose(State::kLost);
    }
    if (result > 0) {
        if (connection.stands()) // else the next attempt is not to be put off
            m_idleTicks = 0;
        return true;
    }
    if (endedHere)
        return false; // which is not to be reported
    std::printf("tcp client %s error %d\r\n", call, static_cast<int>(result));
    errno = code;
    m_errors.report(site);
    return false;
}

bool TcpClientPrivate::asyncSendData(const char* data, unsigned int len) {
    // Once the peer has ended its direction, only what stood in the queue before still goes out.
    m_queue.add(data, len, [this] { return current()->state() == State::kPeerEnded; });
    return true;
}

void TcpClientPrivate::queueThread() {
    while (running())
        if (const auto item = m_queue.next(m_ending))
            if (const ConnectionPtr connection = current(); connection->takesBytes())
                send(*connection, {item->data(), item->size()}, "send", tcp_site::kClientSend);
}

TcpClient::TcpClient(iTcpDataListener* listener, const char* ip, unsigned short port, unsigned int localIp)
    : d(new TcpClientPrivate(listener, ::inet_addr(ip), port, localIp)) {}
TcpClient::TcpClient(iTcpDataListener* listener, const NetAddress& server, unsigned int localIp)
    : TcpClient(listener, transAddr(server.ip), NtoHs(server.port), localIp) {}
TcpClient::~TcpClient() {
    d->notifyForQuit(); // where it is left, inside a callback, its other thread calls nobody any more
    detail::destroy(d);
}
bool TcpClient::connectOnce() {
    return d->connectOnce();
}
void TcpClient::setAutoConnectEnable(bool enable) {
    d->setAutoConnectEnable(enable);
}
bool TcpClient::sendData(const char* data, unsigned int len) {
    return d->sendData(data, len);
}
bool TcpClient::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts) {
    return d->sendMultipleDatas(parts);
}
bool TcpClient::asyncSendData(const char* data, unsigned int len) {
    return d->asyncSendData(data, len);
}
const char* TcpClient::addr() const {
    return ::inet_ntoa(d->server().sin_addr);
}
unsigned short TcpClient::port() const {
    return ntohs(d->server().sin_port);
}
bool TcpClient::isConnected() const {
    return d->isConnected();
}
void TcpClient::notifyForQuit() {
    d->notifyForQuit();
}

} // namespace net
