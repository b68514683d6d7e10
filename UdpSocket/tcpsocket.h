/// @file
/// A TCP client that keeps its connection alive, and a TCP server for many clients.
///
/// Conventions of every class in this header:
/// - Addresses are dotted IPv4 text, or a 32-bit value in network byte order as inet_addr gives it. Ports are
///   16-bit values in host byte order, except inside a NetAddress. Lengths are bytes.
/// - TCP carries a stream: one send may arrive in several pieces, several sends in one. Sends on a connection
///   go out one after the other, in the order of the calls, whichever threads make them: none is torn by
///   another, nor by a signal.
/// - A stream ends when it is lost, or when its owner ends it. A peer that ends its own direction only (FIN)
///   counts as disconnected, and still gets what was on its way to it.
/// - Failures are not raised. A failed socket call writes one line to standard error,
///   "SocketError<file,function,line,(address,port)>:" and below it "function[call],code[errno,text]"; the
///   line number is a fixed number of the failing operation. Connections are logged on standard output. Of
///   the lines that peers can cause, a thousand of a kind are printed in a second, and the rest counted.
/// - Memory that runs out (std::bad_alloc, a listener's as well) costs what a thread of the library had at
///   hand, a client, a message or an attempt, with one line on standard error. In a call it reaches the
///   caller, and leaves the object usable. Any other exception out of a listener ends the process when it is
///   a thread of the library that calls.
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
/// Every Connected is followed by exactly one Disconnected, unless the object itself ends the connection
/// permanently (destructor, notifyForQuit, TcpServer::disconnect): then there is none. Texts and bytes are
/// valid during the call.
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

/// One connection to a server, made again whenever it is lost.
///
/// Life cycle: unconnected after construction. The first automatic attempt comes after about 5 seconds;
/// connectOnce() connects at once. While unconnected there is an attempt every 5.5 seconds; while connected,
/// a link without traffic for 5.5 seconds carries a probe, the text "check" and a zero byte, which the server
/// sees as ordinary data. The destructor ends everything at once, also a connection attempt in progress and a
/// queued send to a peer that does not read; what is still queued is not sent.
///
/// When the server has ended its own direction, the sends that are under way and what stands in the queue
/// still go out, until the next attempt to connect (5.5 seconds at most, unless auto-connect is off), or the
/// destructor. What is queued from then on is dropped.
///
/// Threads: an auto-connect thread and a queue thread for the whole life, one receive thread a connection.
/// Every operation may be called from any thread.
/// - OnTcpDataReceived comes on the receive thread. It must not call connectOnce.
/// - OnTcpClientConnected comes on the thread that connects, the caller of connectOnce or the auto-connect
///   thread, while further attempts wait: it must not call connectOnce. isConnected() is not true before it
///   has returned, so that direct sends still fail inside; what asyncSendData takes is sent afterwards. Data
///   of the previous connection may still be in its listener's hands then.
/// - OnTcpClientDisconnected comes on the auto-connect thread within half a second of the loss, or, when
///   connectOnce replaces a connection before that, on its caller's thread ahead of the next Connected, which
///   waits until it has returned. It may call everything, connectOnce included, but must not wait for another
///   thread that connects. Nothing received on the lost connection is delivered behind it, but a delivery in
///   progress may overlap it. Otherwise events of two connections overlap only when several threads connect.
///
/// Constructing a client makes the whole process ignore SIGPIPE.
class __attribute__((visibility("default"))) TcpClient {
public:
    /// Starts the threads; does not connect.
    /// @throws std::system_error where the system has no thread left, std::bad_alloc where it has no memory;
    ///         nothing is left behind
    /// @param listener hears the connection; may be null
    /// @param ip       the server's address
    /// @param localIp  local address, network order, whose interface the connection is bound to; 0, or an
    ///                 address that no interface carries, leaves the choice to the system
    TcpClient(iTcpDataListener* listener, const char* ip, unsigned short port, unsigned int localIp);
    /// The same with address and port as a record has them.
    TcpClient(iTcpDataListener* listener, const NetAddress& server, unsigned int localIp);
    ~TcpClient();
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;

    /// Ends the connection, if there is one, and makes one attempt to connect. Blocks as long as the system
    /// tries (minutes, when the address is silent). When another thread's attempt succeeds meanwhile, its
    /// connection is kept. @return whether the client is connected
    bool connectOnce();

    /// Whether lost connections are made again and idle ones probed; initially true. Loss is reported anyway.
    void setAutoConnectEnable(bool enable);

    /// Sends on the caller's thread; blocks while the peer does not read. @return true when the system has
    /// taken all of it; false when not connected, or when it failed (also when @p len is 0): that is
    /// reported, and the client counts as disconnected, while the stream is left as it is until the next
    /// attempt
    bool sendData(const char* data, unsigned int len);

    /// Sends several pieces, in order, as one message; result as for sendData. At most 1024 pieces.
    /// @param parts pointer and length of each piece
    bool sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts);

    /// Copies the bytes into a queue that a thread of its own sends from, in order. The queue has no bound;
    /// what comes to its front while the client is not connected is dropped, but for what stood there when
    /// the server ended its own direction. @return true
    bool asyncSendData(const char* data, unsigned int len);

    const char* addr() const; ///< the server's address, in inet_ntoa's buffer: copy it before the next call
    unsigned short port() const; ///< the server's port, host order
    bool isConnected() const;    ///< whether the connection stands, as far as this side has noticed

    /// Asks the threads to end within half a second, and returns at once; the client counts as disconnected
    /// then, while the stream stays open. An attempt under way goes on, and where it succeeds the client
    /// works as before. A later connectOnce makes a connection that is received from, but neither made again
    /// nor probed nor served by the queue, and whose loss only the next connectOnce tells.
    void notifyForQuit();

private:
    TcpClientPrivate* d;
};

/// A server for many clients, told apart by their descriptors.
///
/// Life cycle: silent after construction; listens from a successful connect to disconnect or the destructor,
/// which end everything at once (a callback in progress is waited for) and can be called at any time, also
/// twice. A client is served from its acceptance until it leaves, closeClient or disconnect. Its descriptor
/// number is not given to anybody else before its Disconnected has returned.
///
/// Threads: one that accepts, one that cleans up, one receive thread a client. connect, disconnect and the
/// destructor belong to one thread at a time and must not be called from a callback; every other operation
/// may be called from any thread at any time, callbacks included.
/// - OnTcpClientConnected comes on the accept thread, before the client's first bytes are read. Further
///   clients wait meanwhile.
/// - OnTcpDataReceived and OnTcpClientDisconnected come on the client's own receive thread: the events of one
///   client are ordered, those of different clients run in parallel. Where the system has no thread left for
///   a client, its Disconnected comes on the accept thread, at once.
///
/// A send waits half a second at most for a client that does not read. Where it had taken a part by then, the
/// send counts as made, and the rest goes first when there is room, by itself. Until it has gone, and there
/// is room again, the client is set aside: sends to it are refused at once (EAGAIN), whole, and do not slow
/// those to the others.
///
/// A client that ends its own direction is no client any more; a send to it that is under way goes on, and so
/// does its rest, for as long as the client takes something every 15 seconds.
class __attribute__((visibility("default"))) TcpServer {
public:
    /// @param listener hears the clients; may be null
    explicit TcpServer(iTcpDataListener* listener);
    ~TcpServer();
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    /// Listens on all local addresses; a server that listens already disconnects first.
    /// @param maxClients the most clients served at once: further ones are closed as soon as they are
    ///                   accepted; 0 serves none, a negative number any. Also the length of the queue of
    ///                   clients that wait to be accepted
    /// @return false when the port cannot be had (reported on standard error)
    bool connect(unsigned short port, int maxClients);
    /// The same on one local address.
    bool connect(const char* ip, unsigned short port, int maxClients);

    /// Ends the server and all its connections, without OnTcpClientDisconnected for those that still stand.
    void disconnect();

    /// Asks the threads to end within half a second, and returns at once. The connections stay open,
    /// unserved, until disconnect.
    void notifyForQuit();

    bool isConnected() const; ///< whether there is a client
    int numOfClients();       ///< how many there are

    /// Ends one client's connection: it is no client any more, its peer sees the end at once, and
    /// OnTcpClientDisconnected follows on its receive thread.
    /// @param fd the client's descriptor
    /// @return 0, or -1 with errno EBADF when @p fd is no client's
    int closeClient(int fd);

    /// Sends the same bytes to every client, in parallel, and waits for all. Failures are reported on
    /// standard error and touch nobody else.
    void sendData(const char* data, unsigned int len);
    /// Sends the same pieces, in order, to every client; at most 1024 pieces.
    /// @param parts pointer and length of each piece
    void sendMultipleDatas(const std::vector<std::pair<const void*, int>>& parts);

    /// Sends to one client. @return whether it is sent, or the rest of it will be
    bool sendData(int fd, const char* data, unsigned int len);
    /// Sends to the first client, by descriptor, with the port @p port (host order) whose address begins with
    /// the text @p addr: "10.0.0.1" also finds 10.0.0.12. @return as above
    bool sendData(const char* addr, int port, const char* data, unsigned int len);

private:
    TcpServerPrivate* d;
};

} // namespace net

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
