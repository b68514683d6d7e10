/// @file
/// A TCP client that keeps its connection alive, and a TCP server for many clients.
///
/// Conventions of every class in this header:
/// - Addresses are dotted IPv4 text, or a 32-bit value in network byte order as inet_addr gives it. Ports are
///   16-bit values in host byte order, except inside a NetAddress. Lengths are bytes.
/// - TCP carries a stream: one send may arrive in several pieces, several sends in one. A blocked send that
///   is given up may have sent a part.
/// - Failures are not raised. A failed socket call writes one line to standard error,
///   "SocketError<file,function,line,(address,port)>:" and below it "function[call],code[errno,text]"; the
///   line number is a fixed number of the failing operation. Connections are logged on standard output.
/// - A listener is not owned and must outlive the object that calls it. It must return quickly and must not
///   destroy the object that calls it: the destructor waits for a callback in progress, and none comes after
///   it.
/// - Objects are neither copied nor moved. Construct and destroy an object from one thread at a time, with no
///   other call to it under way.
/// - Sockets are closed in programs that the process starts. A broken connection never raises SIGPIPE here.
#pragma once

#include <utility>
#include <vector>

#include <UdpSocket/radaraddress.h>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // interfaces keep exactly their slots
#endif

namespace net {

class TcpClientPrivate;
class TcpServerPrivate;

/// Hears what happens on the connections of a TcpClient or a TcpServer.
///
/// Every Connected that is followed by the loss of the connection is followed by exactly one Disconnected.
/// Both are left out for a connection that the object itself ends for good (destructor, notifyForQuit,
/// TcpServer::disconnect). Texts and bytes are valid during the call.
class __attribute__((visibility("default"))) iTcpDataListener {
public:
    /// Bytes have arrived. Called on the connection's own receive thread.
    /// @param fd   the descriptor on which they arrived: a number to tell clients of a server apart
    /// @param addr the peer's address
    /// @param port the peer's port, host order
    /// @param data the bytes
    /// @param len  how many, at least 1
    virtual void OnTcpDataReceived(int fd, const char* addr, unsigned short port, const char* data,
                                   int len) = 0;
    /// A connection stands.
    /// @param fd   the client's descriptor at a server; always 0 at a client
    /// @param addr the peer's address
    /// @param port the peer's port, host order
    virtual void OnTcpClientConnected(int fd, const char* addr, unsigned short port) = 0;
    /// A connection is lost. Arguments as for OnTcpClientConnected.
    virtual void OnTcpClientDisconnected(int fd, const char* addr, unsigned short port) = 0;
};

/// One connection to a server, made anew whenever it is lost.
///
/// Life cycle: unconnected after construction. The first automatic attempt comes after about 5 seconds;
/// connectOnce() connects at once. While unconnected there is an attempt every 5.5 seconds; while connected,
/// a link without traffic for 5.5 seconds carries a probe, the text "check" and a zero byte, which the server
/// sees as ordinary data. The destructor ends everything at once, also a connection attempt in progress and a
/// queued send to a peer that does not read; what is still queued is not sent.
///
/// Threads: an auto-connect thread and a queue thread for the whole life, one receive thread a connection.
/// Every operation may be called from any thread.
/// - OnTcpDataReceived comes on the receive thread. It must not call connectOnce.
/// - OnTcpClientConnected comes on the thread that connects, the caller of connectOnce or the auto-connect
///   thread, while further attempts wait: it must not call connectOnce. isConnected() is not true before it
///   has returned, so that direct sends still fail inside; asyncSendData may be used.
/// - OnTcpClientDisconnected comes on the auto-connect thread within half a second of the loss, or, when
///   connectOnce replaces a connection before that, on its caller's thread ahead of the next Connected. It
///   may call everything. Only when several threads connect can events of two connections overlap in time.
///
/// Constructing a client makes the whole process ignore SIGPIPE.
class __attribute__((visibility("default"))) TcpClient {
public:
    /// Starts the threads; does not connect.
    /// @param listener hears the connection; may be null
    /// @param ip       the server's address
    /// @param localIp  local address, network order, whose interface the connection is bound to; 0, or an
    ///                 address that no interface carries, leaves the choice to the system
    TcpClient(iTcpDataListener* listener, const char* ip, unsigned short port, unsigned int localIp);
    TcpClient(iTcpDataListener* listener, const NetAddress& server, unsigned int localIp);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    /// Ends the connection, if there is one, and makes one attempt to connect. Blocks as long as the system
    /// tries (minutes, when the address is silent). When another thread's attempt succeeds meanwhile, its
    /// connection is kept. @return whether the client is connected
    bool connectOnce();

    /// Whether lost connections are made anew and idle ones probed; initially true. Loss is reported anyway.
    void setAutoConnectEnable(bool enable);

    /// Sends on the caller's thread; blocks while the peer does not read.
    /// @return false when not connected, or when nothing was sent (also when @p len is 0): that is reported
    ///         and counts as loss of the connection. True may stand for a part, when the connection was lost.
    bool sendData(const char* data, unsigned int len);

    /// Sends several pieces, in order, in one system call; result as for sendData. At most 1024 pieces.
    /// @param parts pointer and length of each piece
    bool sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts);

    /// Copies the bytes into a queue that a thread of its own sends from, in order. The queue has no bound;
    /// what comes to its front while the client is not connected is dropped. @return true
    bool asyncSendData(const char* data, unsigned int len);

    const char* addr() const; ///< the server's address, in inet_ntoa's buffer: copy it before the next call
    unsigned short port() const; ///< the server's port, host order
    bool isConnected() const;    ///< whether the connection stands, as far as this side has noticed

    /// Asks the threads to end within half a second, and returns at once. A later connectOnce makes a
    /// connection that is received from, but neither made anew nor probed nor served by the queue.
    void notifyForQuit();

private:
    TcpClientPrivate* d;
};

} // namespace net

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
