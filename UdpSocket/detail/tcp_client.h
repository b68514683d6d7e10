/// @file
/// The implementation behind net::TcpClient.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/detail/tcp_stream.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <thread>

namespace net {

/// Each socket with its flags is one Connection, which every thread that works on it holds: a thread that is
/// late cannot touch, or mark as lost, the connection that has replaced its own.
///
/// Threads: see TcpClient. The auto-connect thread and the queue thread live from constructor to destructor;
/// a receive thread is joined before the next Connected. Life cycle: the destructor stops every pause, shuts
/// the socket (which wakes what blocks on it, connecting included) and joins. Errors: as TcpClient says.
class TcpClientPrivate {
public:
    TcpClientPrivate(iTcpDataListener* listener, in_addr_t ip, unsigned short port, unsigned int localIp);
    ~TcpClientPrivate();

    bool connectOnce();
    void setAutoConnectEnable(bool enable) { m_autoConnectEnabled = enable; }
    bool sendData(const char* data, unsigned int len);
    bool sendMultipleDatas(const detail::Parts& parts);
    bool asyncSendData(const char* data, unsigned int len);
    const sockaddr_in& server() const { return m_server; }
    bool isConnected() const { return current()->connected; }
    void notifyForQuit() { m_running = false; }

private:
    struct Connection {
        explicit Connection(detail::Descriptor descriptor) : socket(std::move(descriptor)) {}
        /// Ends it from this side: what its threads meet from now on is no error.
        void end() {
            ended = true;
            connected = false;
            detail::endStream(socket);
        }

        const detail::Descriptor socket;
        std::atomic<bool> connected = false;
        std::atomic<bool> ended = false;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

    ConnectionPtr current() const;
    bool running() const { return m_running && !m_ending.stopped(); }
    void report(const detail::SourceSite& site, const char* call) const;

    ConnectionPtr reset() REQUIRES(m_connectMutex);
    void bindToInterface(const detail::Descriptor& socket) const;
    bool connectSocket(const detail::Descriptor& socket) const;
    bool connectUnlessConnected();
    ConnectionPtr announced() const;
    void announceLoss(const ConnectionPtr& lost);
    void probeOrConnect();
    bool checkSent(Connection& connection, ssize_t result, const char* call, const detail::SourceSite& site);

    void autoConnectThread();
    void receiveThread(Connection& connection);
    void queueThread();

    iTcpDataListener* const m_listener;
    const sockaddr_in m_server;
    const std::string m_address;  // m_server's, as text
    const unsigned short m_port;  // m_server's, host order
    const unsigned int m_localIp; // network order
    std::atomic<bool> m_running = true;
    std::atomic<bool> m_autoConnectEnabled = true;
    std::atomic<int> m_idleTicks = 0; // half seconds since the last traffic
    detail::Pause m_ending;

    mutable detail::Mutex m_stateMutex;
    ConnectionPtr m_current GUARDED_BY(m_stateMutex);   // never null
    ConnectionPtr m_announced GUARDED_BY(m_stateMutex); // Connected was called for it, Disconnected was not

    detail::Mutex m_queueMutex;
    detail::Condition m_queued;
    std::deque<std::string> m_queue GUARDED_BY(m_queueMutex);

    detail::Mutex m_connectMutex ACQUIRED_BEFORE(m_stateMutex); // one socket is made and connected at a time
    std::thread m_receiver GUARDED_BY(m_connectMutex);
    std::thread m_autoConnect;
    std::thread m_sender;
};

} // namespace net
