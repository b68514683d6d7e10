/// @file
/// UDP endpoints, address utilities and the table of local interfaces.
///
/// Conventions of every class in this header:
/// - Addresses are dotted IPv4 text, or a 32-bit value in network byte order as inet_addr gives it. Ports are
///   16-bit values in host byte order, except inside a NetAddress.
/// - Failures are not raised. A failed socket call writes one line to standard error,
///   "SocketError<file,function,line,(address,port)>:" and below it "function[call],code[errno,text]", and
///   leaves the object as far as it came: inert at worst, always safe to destroy.
/// - A listener is not owned and must outlive the object that calls it. It is called on a thread of that
///   object, with no lock held; it must return quickly and must not destroy the object that calls it.
/// - Objects are neither copied nor moved. Construct and destroy an object from one thread at a time.
/// - An object belongs to the process that made it: a child made by fork may end with it standing, and its
///   parent notices nothing, but the child cannot use it. (Make objects after daemon().) A program may end
///   while objects stand.
/// - Memory that runs out on a thread of the library, std::bad_alloc from a listener included, costs the
///   datagram or the pass at hand, with a line on standard error. Whatever else a listener throws there ends
///   the process.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <UdpSocket/radaraddress.h>

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // interfaces keep exactly their slots
#endif

namespace net {

class UdpSocketPrivate;
class UdpSenderPrivate;
class UdpReceiverPrivate;
class UdpCheckerPrivate;

/// Hears the datagrams of a UdpSocket or a UdpReceiver.
class __attribute__((visibility("default"))) iUdpDataListener {
public:
    /// One datagram has arrived. Called on the receiving object's own thread, one datagram at a time; the
    /// last call ends before the destructor of the receiving object returns.
    /// @param fromIp    the sender's address, valid during the call
    /// @param fromPort  the sender's port, host order
    /// @param groupIp   the address that the receiving object was set up with
    /// @param groupPort the port that the receiving object was set up with, host order
    /// @param data      the bytes, valid during the call
    /// @param length    how many, at least 1; a datagram longer than the object's buffer is cut to its size
    virtual void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char* groupIp, int groupPort,
                                        const char* data, int length) = 0;
};

/// The simplest UDP endpoint: receives a multicast group, or sends to one, or (SetSendSockAddr first, then
/// SetGroupRecvSockAddr) both on one socket.
///
/// Life cycle: a new object has no socket. Each set-up call ends what the object did before and starts again;
/// it takes one to receive again after the interface was replaced, which a UdpReceiver does by itself. A call
/// that fails without waiting is reported and repeated ten times a second.
/// Threads: one receive thread while receiving. SendData may be called from any thread; the set-up calls and
/// the destructor must not overlap with each other or with SendData, nor be made by the listener: they wait
/// for it.
class __attribute__((visibility("default"))) UdpSocket {
public:
    /// @param listener   hears the datagrams; may not be null once the object receives
    /// @param bufferSize size of the receive buffer in bytes: the longest datagram delivered whole
    UdpSocket(iUdpDataListener* listener, int bufferSize);
    /// Ends the receive thread at once (a callback in progress is waited for) and closes the socket.
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    /// Makes a socket that sends to a group; the socket also becomes a member of it.
    /// @param localIp interface address for the membership, network order; 0 lets the system choose
    /// @param port    destination port, cut to 16 bits
    void SetSendSockAddr(unsigned int localIp, const char* groupIp, int port);

    /// Makes a socket bound to @p port on all addresses, joins the group through @p localIp and starts the
    /// receive thread. When binding or joining fails there is no thread.
    void SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port);

    /// Sends one datagram. @return what sendto returned: @p length, or -1 (reported on standard error)
    int SendData(const char* data, int length) const;

    /// Asks the receive thread to end after the next datagram or within 2 seconds, and returns at once.
    void notifyForQuit();

private:
    UdpSocketPrivate* d;
};

/// Sends datagrams to one address and port. "255.255.255.255" is broadcast, 224.0.0.0 to 239.255.255.255 is
/// multicast, anything else unicast.
///
/// Whether this machine hears its own multicast is read from profile.ini, section "Local", key
/// "MulticastLoop" (default false), each time a sender is made. What goes to a group leaves by the interface
/// that carries the local address, also when the address has moved, 2 seconds later at most. Threads: none of
/// its own; all operations may be called from several threads at once.
class __attribute__((visibility("default"))) UdpSender {
public:
    /// @param localIp   address to send from, network order; 0 lets the system choose
    /// @param localPort port to send from, host order; 0 lets the system choose
    UdpSender(const char* address, unsigned short port, unsigned int localIp, unsigned short localPort);
    /// The same with address and port as a record has them.
    UdpSender(const NetAddress& destination, unsigned int localIp, unsigned short localPort);
    ~UdpSender();
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    /// Sends one datagram. @return what sendto returned, or -1 when there is no socket: where the system had
    /// none left, it is asked again by every call
    int sendData(const char* data, int length) const;

    /// Sends several datagrams, in order, in one system call.
    /// @param datas pointer and length in bytes of each datagram
    /// @return how many were sent, possibly fewer than given (the rest is not retried), or -1
    int sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas);

    /// Whether receivers on this machine hear what this object sends to a multicast group.
    void setMulticastLoop(bool on);

    const char* addr() const;    ///< destination address, valid as long as the object
    unsigned short port() const; ///< destination port, host order

    /// Does nothing: senders and receivers offer the same calls.
    void notifyForQuit();

private:
    friend class UdpSenderPrivate;
    UdpSenderPrivate* d;
};

/// Receives the datagrams of one multicast group, of "255.255.255.255" or of one local unicast address.
///
/// The socket is bound to that very address, asks for a receive buffer of ten times @p bufferSize, and is
/// pinned to the interface that carries the local address; a host route for the address through that
/// interface is added with the command "route" (first through sudo). When the local address belongs to no
/// interface, both are left out. The command has no terminal, and 5 seconds.
///
/// A receiver whose socket was refused, whose address arrives late, or whose interface is replaced looks for
/// that every 2 seconds and sets up another socket. Threads: one receive thread, from the end of the
/// constructor to notifyForQuit or the destructor, and one for the command of such a repair.
class __attribute__((visibility("default"))) UdpReceiver {
public:
    /// @param listener   hears the datagrams; null discards them
    /// @param localIp    local interface address, network order; 0 lets the system choose
    /// @param bufferSize size of the receive buffer in bytes: the longest datagram delivered whole
    UdpReceiver(iUdpDataListener* listener, unsigned int localIp, const char* address, unsigned short port,
                int bufferSize);
    /// The same with address and port as a record has them.
    UdpReceiver(iUdpDataListener* listener, unsigned int localIp, const NetAddress& address, int bufferSize);
    /// Ends the receive thread at once (a callback in progress is waited for, a command is killed) and closes
    /// the socket.
    ~UdpReceiver();
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;

    const char* addr() const;    ///< the address listened on, valid as long as the object
    unsigned short port() const; ///< the port listened on, host order

    /// Asks the receive thread to end, after the next datagram or within 0.5 seconds, and returns at once.
    void notifyForQuit();

private:
    friend class UdpReceiverPrivate;
    UdpReceiverPrivate* d;
};

/// Hears through which local address a UdpChecker has received its text.
class __attribute__((visibility("default"))) iUdpCheckerListener {
public:
    /// An address was found, or another one than before; a loss is not told. Called on the checker's thread,
    /// or on the one that adds the listener.
    /// @param localIp network order
    virtual void OnUdpCheckerIpFound(unsigned int localIp) = 0;
};

/// Finds out through which local address a known multicast datagram can be received.
///
/// At once, and again 5 seconds after each check, it listens on the group through every local address at the
/// same time, for one datagram or 2 seconds each. A datagram that is the expected text, or its beginning,
/// settles on that address; when several hear it, on one of them.
///
/// Life cycle: checks from construction to destruction. Threads: one, and one for each local address during a
/// check; listeners may be added and removed from any thread.
class __attribute__((visibility("default"))) UdpChecker {
public:
    /// @param port     host order
    /// @param expected text of at most 128 bytes; not copied, must outlive the object
    UdpChecker(const char* groupIp, unsigned short port, const char* expected);
    /// Ends a check or pause in progress at once; a callback in progress is waited for.
    ~UdpChecker();
    UdpChecker(const UdpChecker&) = delete;
    UdpChecker& operator=(const UdpChecker&) = delete;

    /// Adds a listener, a second time too; when an address stands found, tells it that address at once.
    void addListener(iUdpCheckerListener* listener);
    /// Removes every entry of the listener. A round of calls that is under way may still reach it.
    void removeListener(iUdpCheckerListener* listener);

private:
    UdpCheckerPrivate* d;
};

/// @name Address utilities
/// Free of state; any thread may call them.
/// @{

/// Dotted text to a network-order address. Text that is no address gives 0xFFFFFFFF, as "255.255.255.255"
/// does.
__attribute__((visibility("default"))) unsigned int transAddr(const char* ip);
/// A network-order address to dotted text, in the C library's buffer: copy it before the next conversion.
__attribute__((visibility("default"))) char* transAddr(unsigned int ip);

/// A 16-bit value, a port say, from host to network order.
__attribute__((visibility("default"))) unsigned short HtoNs(unsigned short hostOrder);
/// A 16-bit value from network to host order.
__attribute__((visibility("default"))) unsigned short NtoHs(unsigned short networkOrder);
/// A 32-bit value from host to network order.
__attribute__((visibility("default"))) unsigned int HtoNl(unsigned int hostOrder);
/// A 32-bit value from network to host order.
__attribute__((visibility("default"))) unsigned int NtoHl(unsigned int networkOrder);

/// A prefix length as a dotted netmask: 24 gives "255.255.255.0". Lengths outside 0 to 32 wrap modulo 32.
__attribute__((visibility("default"))) std::string cidrToMask(int prefixLength);
/// The number of one-bits of a dotted netmask, whether contiguous or not; numbers that cannot be read count
/// as 0.
__attribute__((visibility("default"))) int maskToCidr(const std::string& mask);

/// Resolves a host name and appends its IPv4 addresses, in the resolver's order, to @p addresses.
/// @return how many were appended; 0 when the name is not known, or nobody could be asked
__attribute__((visibility("default"))) int GetIpByDomainName(const char* name,
                                                             std::vector<std::string>& addresses);
/// @}

/// @name Local interfaces
/// @{

/// One local IPv4 address and the interface that carries it.
struct tNetworkInterface {
    std::string ip;   ///< dotted text
    std::string mac;  ///< "00:1A:2B:3C:4D:5E", upper case; empty when it could not be read
    std::string name; ///< as the system reports it; an alias keeps its suffix ("eth0:1")
};

/// Makes the calls of localNetworkInterfaces one at a time.
extern __attribute__((visibility("default"))) std::mutex networkIfMutex;

/// All local IPv4 addresses by network-order value, the loopback address included; read afresh on each call.
/// Any thread. Empty when the system cannot list them (reported on standard error).
__attribute__((visibility("default"))) std::map<unsigned int, tNetworkInterface> localNetworkInterfaces();

/// The hardware address of the interface that carries @p ip (network order), 12 hexadecimal digits without
/// colons; empty when it could not be read. Any thread.
/// @throws std::logic_error when no interface carries it, or the system cannot list them
__attribute__((visibility("default"))) std::string localMac(unsigned int ip);

/// The name of the interface that carries @p ip (network order), or "". Any thread.
__attribute__((visibility("default"))) std::string localIfaName(unsigned int ip);

/// Writes the hardware address of the interface @p ifname into @p mac, in the form of tNetworkInterface::mac.
/// @param mac room for at least 18 bytes; untouched when a pointer is null, when the name has 16 or more
///            characters or when the system does not know it (reported on standard error)
/// @return mac
__attribute__((visibility("default"))) char* getMac(char* mac, char* ifname);
/// @}

} // namespace net

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
