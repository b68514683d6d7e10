#include <UdpSocket/detail/tcp_client.h>

#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/detail/tcp_sites.h>
#include <UdpSocket/udpsocket.h>

#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>

namespace net {

namespace {

using namespace std::chrono_literals;
namespace tcp_site = detail::tcp_site;

constexpr auto kTick = 500ms;                  // the auto-connect thread's cycle
constexpr int kTicksBetweenAttempts = 10;      // an attempt or a probe every eleventh idle tick
constexpr auto kPauseAfterTimeOut = 10ms;      // of the receive thread
constexpr std::size_t kReceiveBuffer = 204800; // longest piece given to the listener
constexpr std::size_t kLongQueue = 100;        // a longer one is worth a warning
constexpr char kProbe[] = "check";             // sent with its zero byte

} // namespace

TcpClientPrivate::TcpClientPrivate(iTcpDataListener* listener, in_addr_t ip, unsigned short port,
                                   unsigned int localIp)
    : m_listener(listener), m_server(detail::tcpAddress(ip, port)), m_address(transAddr(ip)), m_port(port),
      m_localIp(localIp), m_current(std::make_shared<Connection>(detail::Descriptor())) {
    std::signal(SIGPIPE, SIG_IGN);
    m_sender = detail::startThread([this] { queueThread(); });
    try {
        m_autoConnect = detail::startThread([this] { autoConnectThread(); });
    } catch (...) {
        m_ending.stop();
        m_queued.notify_all();
        m_sender.join();
        throw;
    }
}

TcpClientPrivate::~TcpClientPrivate() {
    m_running = false;
    m_ending.stop();
    current()->end();
    { detail::Lock lock(m_queueMutex); } // the queue thread waits, or will see the end
    m_queued.notify_all();
    { detail::Lock lock(m_connectMutex); } // an attempt in progress ends now, a later one does not begin
    m_autoConnect.join();
    current()->end(); // when that attempt has just succeeded
    if (m_receiver.joinable())
        m_receiver.join();
    m_sender.join();
}

TcpClientPrivate::ConnectionPtr TcpClientPrivate::current() const {
    detail::Lock lock(m_stateMutex);
    return m_current;
}

void TcpClientPrivate::report(const detail::SourceSite& site, const char* call) const {
    detail::reportSocketError(site, m_address.c_str(), m_port, call);
}

// ------------------------------------------------------------------------------------------- connecting

/// Ends the current connection and makes a new socket with its options. Needs the connection lock.
TcpClientPrivate::ConnectionPtr TcpClientPrivate::reset() {
    current()->end();
    auto connection = std::make_shared<Connection>(detail::openSocket(SOCK_STREAM | SOCK_NONBLOCK));
    const detail::Descriptor& socket = connection->socket;
    if (!socket.isOpen()) {
        report(tcp_site::kClientSocket, "socket");
    } else {
        detail::setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
        detail::askSilentPeer(socket);
        bindToInterface(socket);
        if (!detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, detail::kTcpTimeOut))
            report(tcp_site::kClientReceiveTimeOut, "setsockopt::SO_RCVTIMEO");
    }
    detail::Lock lock(m_stateMutex);
    m_current = connection;
    return connection;
}

void TcpClientPrivate::bindToInterface(const detail::Descriptor& socket) const {
    if (m_localIp == 0)
        return;
    const std::string name = localIfaName(m_localIp);
    if (name.empty())
        return;
    ifreq request{};
    detail::deviceName(name).copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (!detail::setOption(socket, SOL_SOCKET, SO_BINDTODEVICE, request))
        report(tcp_site::kClientBindToDevice, "setsockopt::SO_BINDTODEVICE");
}

/// A blocking connect that the destructor cuts short: it stops m_ending first and shuts the socket second, so
/// that one of the two is noticed here.
bool TcpClientPrivate::connectSocket(const detail::Descriptor& socket) const {
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&m_server), sizeof m_server) != 0) {
        if (errno != EINPROGRESS)
            return false;
        pollfd writable{socket.get(), POLLOUT, 0};
        int ready;
        do {
            if (m_ending.stopped())
                return false;
            ready = ::poll(&writable, 1, -1);
        } while (ready == -1 && errno == EINTR);
        if (ready == -1)
            return false;
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0 ||
            m_ending.stopped())
            return false;
    }
    return ::fcntl(socket.get(), F_SETFL, 0) == 0; // blocking from here on
}

bool TcpClientPrivate::connectOnce() {
    if (const ConnectionPtr standing = announced())
        announceLoss(standing);
    return connectUnlessConnected();
}

/// Another thread's connection that came to stand meanwhile is kept.
bool TcpClientPrivate::connectUnlessConnected() {
    detail::Lock lock(m_connectMutex);
    ConnectionPtr found;
    while (!m_ending.stopped() && (found = announced()) != nullptr) {
        if (found->connected)
            return true;
        lock.unlock();
        announceLoss(found); // before the next Connected
        lock.lock();
    }
    if (m_ending.stopped())
        return false;
    const ConnectionPtr connection = reset();
    std::printf("tcp client try to connect (addr = %s,port = %u)\r\n", m_address.c_str(), m_port);
    if (!connectSocket(connection->socket)) {
        std::printf("tcp client connected failed ...\r\n");
        return false;
    }
    std::printf("tcp client successfully connected (addr = %s,port = %u)\r\n", m_address.c_str(), m_port);
    if (m_receiver.joinable())
        m_receiver.join(); // the old stream ends before the new one is announced
    if (m_listener != nullptr)
        m_listener->OnTcpClientConnected(0, m_address.c_str(), m_port);
    connection->connected = true;
    {
        detail::Lock stateLock(m_stateMutex);
        m_announced = connection;
    }
    m_running = true;
    if (!detail::launchThread(m_receiver, [this, connection] { receiveThread(*connection); })) {
        report(tcp_site::kClientReceive, "thread");
        connection->connected = false; // lost at once, and tried again like any other
        return false;
    }
    return true;
}

/// The connection that is owed a Disconnected, standing or lost, or null.
TcpClientPrivate::ConnectionPtr TcpClientPrivate::announced() const {
    detail::Lock lock(m_stateMutex);
    return m_announced;
}

/// Ends @p lost and calls Disconnected for it, unless another thread does so already. Needs the connection
/// lock not to be held: the listener may connect.
void TcpClientPrivate::announceLoss(const ConnectionPtr& lost) {
    {
        detail::Lock lock(m_stateMutex);
        if (m_announced != lost || m_ending.stopped())
            return;
        m_announced.reset();
    }
    lost->end();
    if (m_listener != nullptr)
        m_listener->OnTcpClientDisconnected(0, m_address.c_str(), m_port);
}

void TcpClientPrivate::autoConnectThread() {
    {
        detail::Lock lock(m_connectMutex);
        if (!current()->socket.isOpen() && !m_ending.stopped())
            reset();
    }
    while (running()) {
        if (const ConnectionPtr connection = announced(); connection != nullptr && !connection->connected)
            announceLoss(connection);
        if (m_idleTicks++ >= kTicksBetweenAttempts) {
            m_idleTicks = 0;
            if (m_autoConnectEnabled)
                probeOrConnect();
        }
        m_ending.sleep(kTick);
    }
}

void TcpClientPrivate::probeOrConnect() {
    const ConnectionPtr connection = current();
    if (!connection->connected) {
        connectUnlessConnected();
        return;
    }
    const ssize_t sent = detail::sendBytes(connection->socket, kProbe, sizeof kProbe);
    const int code = errno;
    if (sent >= 0 || m_ending.stopped())
        return;
    std::printf("tcp client check error %d %d %d\r\n", static_cast<int>(sent), code, EPIPE);
    if (code == EPIPE) {
        announceLoss(connection);
        connectUnlessConnected();
    }
}

// -------------------------------------------------------------------------------------------- receiving

void TcpClientPrivate::receiveThread(Connection& connection) {
    const std::unique_ptr<char[]> buffer(new char[kReceiveBuffer]);
    const int fd = connection.socket.get();
    while (m_running && connection.connected) {
        errno = 0; // a closed connection is reported with code 0
        const ssize_t count = ::recv(fd, buffer.get(), kReceiveBuffer, 0);
        if (connection.ended)
            break;
        if (count > 0) {
            m_idleTicks = 0;
            if (m_listener != nullptr)
                m_listener->OnTcpDataReceived(fd, m_address.c_str(), m_port, buffer.get(),
                                              static_cast<int>(count));
        } else if (count == 0) {
            report(tcp_site::kClientPeerClosed, "peer closed connection");
            break;
        } else if (errno == EAGAIN && !detail::isPeerGone(connection.socket)) {
            m_ending.sleep(kPauseAfterTimeOut);
        } else {
            if (errno == EAGAIN)
                errno = ETIMEDOUT;
            report(tcp_site::kClientReceive, "recv error");
            break;
        }
    }
    std::printf("tcp client (addr = %s,port = %u) receive thread out ....\r\n", m_address.c_str(), m_port);
    connection.end(); // a thread that still waits to send would not see it otherwise
}

// ---------------------------------------------------------------------------------------------- sending

bool TcpClientPrivate::sendData(const char* data, unsigned int len) {
    const ConnectionPtr connection = current();
    if (!connection->connected)
        return false;
    return checkSent(*connection, detail::sendBytes(connection->socket, data, len), "send",
                     tcp_site::kClientSend);
}

bool TcpClientPrivate::sendMultipleDatas(const detail::Parts& parts) {
    const ConnectionPtr connection = current();
    if (!connection->connected)
        return false;
    return checkSent(*connection, detail::sendParts(connection->socket, parts), "writev",
                     tcp_site::kClientSendParts);
}

/// Counts what was sent as traffic; reports what was not, and marks that connection lost.
bool TcpClientPrivate::checkSent(Connection& connection, ssize_t result, const char* call,
                                 const detail::SourceSite& site) {
    if (result > 0) {
        m_idleTicks = 0;
        return true;
    }
    const int code = errno;
    connection.connected = false;
    if (connection.ended || m_ending.stopped())
        return false; // shut by ourselves, which is not to be reported
    std::printf("tcp client %s error %d\r\n", call, static_cast<int>(result));
    errno = code;
    report(site, "send");
    return false;
}

bool TcpClientPrivate::asyncSendData(const char* data, unsigned int len) {
    {
        detail::Lock lock(m_queueMutex);
        m_queue.emplace_back(data, len);
    }
    m_queued.notify_one();
    return true;
}

void TcpClientPrivate::queueThread() {
    while (running()) {
        std::string item;
        std::size_t left = 0;
        {
            detail::Lock lock(m_queueMutex);
            m_queued.wait_for(lock, kTick, [this]() REQUIRES(m_queueMutex) {
                return !m_queue.empty() || m_ending.stopped();
            });
            if (m_queue.empty() || m_ending.stopped())
                continue;
            item = std::move(m_queue.front());
            m_queue.pop_front();
            left = m_queue.size();
        }
        if (left > kLongQueue)
            std::printf("Tcp %s list size %d !!!\r\n", "asyncSend", static_cast<int>(left));
        sendData(item.data(), static_cast<unsigned int>(item.size()));
    }
}

} // namespace net
