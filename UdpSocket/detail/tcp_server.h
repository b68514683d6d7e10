/// @file
/// The implementation behind net::TcpServer.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/detail/tcp_stream.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace net {

/// Each client is one shared object that owns the descriptor: the table and every thread that receives from
/// or sends to the client hold it, so that the number is not given to another connection while one of them
/// may use it.
///
/// Threads, all from connect to disconnect: the accept thread, one receive thread a client, and the clean-up
/// thread, which joins receive threads whose client has gone. Sends to all have one thread for each client
/// that does not take everything at once, joined before they return. Life cycle: disconnect shuts the
/// sockets, which wakes the threads, and joins them. Errors: as TcpServer says; a client that the system
/// refuses memory or a thread for is dropped.
class TcpServerPrivate {
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
        const Endpoint server; // where it was accepted: a send may outlast that
        std::atomic<bool> closed = false;
    };
    using ClientPtr = std::shared_ptr<Client>;

    void report(const detail::SourceSite& site, const char* call) const;
    void acceptThread();
    void welcome(detail::Descriptor socket, const sockaddr_in& from);
    void startReceiver(const ClientPtr& client);
    void receiveThread(const ClientPtr& client, char* buffer);
    void dismiss(const ClientPtr& client);
    void cleanUpThread();
    /// Sends what comes behind the first so many bytes of a message, with further flags of send().
    using Send = std::function<ssize_t(const detail::Descriptor&, int flags, std::size_t skipped)>;
    /// @param length of the whole message
    void sendToAll(std::size_t length, const Send& send, const detail::SourceSite& site);

    iTcpDataListener* const m_listener;
    std::atomic<bool> m_running = false;

    // Set while no thread runs.
    detail::Descriptor m_listening;
    Endpoint m_bound{"0.0.0.0", 0};
    int m_limit = 0;
    std::thread m_accept;
    std::thread m_cleanUp;

    mutable detail::Mutex m_clientsMutex;
    std::map<int, ClientPtr> m_clients GUARDED_BY(m_clientsMutex);

    detail::Mutex m_threadsMutex; // never held together with m_clientsMutex
    std::list<std::thread> m_receivers GUARDED_BY(m_threadsMutex);
    std::deque<std::thread::id> m_ended GUARDED_BY(m_threadsMutex); // receivers to be joined
    bool m_stopping GUARDED_BY(m_threadsMutex) = false;
    detail::Condition m_threadsChanged;
};

} // namespace net
