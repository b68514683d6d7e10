/// @file
/// The implementation behind net::TcpClient.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/detail/tcp_stream.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
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

    ConnectionPtr reset();
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

    mutable std::mutex m_stateMutex; // guards m_current and m_announced
    ConnectionPtr m_current;         // never null
    ConnectionPtr m_announced;       // Connected was called for it, Disconnected was not

    std::mutex m_queueMutex; // guards m_queue
    std::condition_variable m_queued;
    std::deque<std::string> m_queue;

    std::mutex m_connectMutex; // guards m_receiver; one socket is made and connected at a time
    std::thread m_receiver;
    std::thread m_autoConnect;
    std::thread m_sender;
};

} // namespace net
