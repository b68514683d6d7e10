#include <UdpSocket/udpsocket.h>

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/profile.h>
#include <UdpSocket/detail/shell_text.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/detail/source_text.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/detail/udp_checker.h>
#include <UdpSocket/detail/udp_receiver.h>
#include <UdpSocket/netiphelper.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace net {

namespace {

using detail::Descriptor;
using detail::setOption;
using detail::SourceSite;

constexpr timeval kSocketTimeOut{2, 0};        // UdpSocket: how often its thread looks at the running flag
constexpr timeval kReceiverTimeOut{0, 500000}; // UdpReceiver: the same
constexpr auto kSilence = std::chrono::milliseconds(500); // the same without a socket
constexpr auto kMendPeriod = std::chrono::seconds(2); // how soon a receiver notices that its interface is new
constexpr int kReceiveBufferFactor = 10; // waiting datagrams of full size that a receiver asks room for

sockaddr_in endpoint(in_addr_t address, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = address;
    return result;
}

/// The 8-byte value that IP_ADD_MEMBERSHIP and IP_MULTICAST_IF take.
ip_mreq membership(in_addr_t group, in_addr_t interfaceAddress) {
    return {in_addr{group}, in_addr{interfaceAddress}};
}

bool bindTo(const Descriptor& socket, const sockaddr_in& address) {
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

ssize_t sendTo(const Descriptor& socket, const char* data, int length, const sockaddr_in& destination) {
    return ::sendto(socket.get(), data, static_cast<size_t>(length), 0,
                    reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
}

/// One datagram with its source; the result is that of recvfrom.
ssize_t receiveFrom(const Descriptor& socket, char* buffer, int size, sockaddr_in& source) {
    socklen_t length = sizeof source;
    return ::recvfrom(socket.get(), buffer, static_cast<size_t>(size), 0,
                      reinterpret_cast<sockaddr*>(&source), &length);
}

/// Of a send: the interface was removed, or does not carry the address any more and is down.
bool isInterfaceGone(int error) {
    return error == ENODEV || error == ENETUNREACH;
}

enum class Kind { Unicast, Multicast, Broadcast };

Kind kindOf(const std::string& address) {
    if (address == "255.255.255.255")
        return Kind::Broadcast;
    return IN_MULTICAST(ntohl(::inet_addr(address.c_str()))) ? Kind::Multicast : Kind::Unicast;
}

} // namespace

// ---------------------------------------------------------------------------------------------- UdpSocket

class UdpSocketPrivate {
public:
    UdpSocketPrivate(iUdpDataListener* listener, int bufferSize)
        : m_listener(listener), m_bufferSize(bufferSize),
          m_buffer(new char[static_cast<size_t>(bufferSize)]) {}
    ~UdpSocketPrivate() { close(); }

    void SetSendSockAddr(unsigned int localIp, const char* groupIp, int port);
    void SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port);
    int SendData(const char* data, int length) const;
    void notifyForQuit() { m_running = false; }

private:
    void report(const char* call, SourceSite site = SourceSite::here()) const {
        detail::reportSocketError(site, m_group.c_str(), m_port, call);
    }
    void close();
    void launchThread();

    Descriptor m_socket;
    sockaddr_in m_destination{};
    sockaddr_in m_bound{};
    std::string m_group;
    unsigned short m_port = 0; // host order
    iUdpDataListener* const m_listener;
    const int m_bufferSize;
    const std::unique_ptr<char[]> m_buffer;
    std::thread m_thread;
    std::atomic<bool> m_running = false;
};

void UdpSocketPrivate::close() {
    m_running = false;
    m_socket.wakeReader();
    if (m_thread.joinable())
        m_thread.join();
    m_socket.reset();
}

void UdpSocketPrivate::SetSendSockAddr(unsigned int localIp, const char* groupIp, int port) {
    close();
    m_socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen()) {
        report("socket");
        return;
    }
    if (!setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1))
        report("setsockopt::SO_REUSERADDR");
    if (!setOption(m_socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership(::inet_addr(groupIp), localIp))) {
        report("Setsockopt IP_ADD_MEMBERSHIP");
        return;
    }
    m_destination = endpoint(::inet_addr(groupIp), static_cast<unsigned short>(port));
}

void UdpSocketPrivate::SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port) {
    close();
    m_socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen()) {
        report("socket");
        return;
    }
    if (!setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1))
        report("setsockopt::SO_REUSERADDR");
    m_group = groupIp;
    m_port = port;
    m_bound = endpoint(INADDR_ANY, port);
    if (!bindTo(m_socket, m_bound)) {
        report("bind");
        return;
    }
    if (!setOption(m_socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership(::inet_addr(groupIp), localIp))) {
        report("setsockopt::IP_ADD_MEMBERSHIP");
        return;
    }
    if (!setOption(m_socket, SOL_SOCKET, SO_RCVTIMEO, kSocketTimeOut))
        report("setsockopt::SO_RCVTIMEO");
    m_running = true;
    launchThread();
}

void UdpSocketPrivate::launchThread() {
    const bool launched = detail::launchThread(m_thread, [this] {
        sockaddr_in source{};
        detail::SourceText sourceText;
        while (m_running) {
            errno = 0; // an empty datagram is reported with code 0
            const ssize_t count = receiveFrom(m_socket, m_buffer.get(), m_bufferSize, source);
            if (count > 0)
                m_listener->OnUdpGroupDataReceived(sourceText.of(source.sin_addr), ntohs(source.sin_port),
                                                   m_group.c_str(), m_port, m_buffer.get(),
                                                   static_cast<int>(count));
            else if (m_running && errno != EAGAIN)
                report("recvfrom");
        }
    });
    if (!launched)
        report("thread");
}

int UdpSocketPrivate::SendData(const char* data, int length) const {
    const auto sent = static_cast<int>(sendTo(m_socket, data, length, m_destination));
    if (sent != length)
        report("sendto");
    return sent;
}

UdpSocket::UdpSocket(iUdpDataListener* listener, int bufferSize)
    : d(new UdpSocketPrivate(listener, bufferSize)) {}
UdpSocket::~UdpSocket() {
    delete d;
}
void UdpSocket::SetSendSockAddr(unsigned int localIp, const char* groupIp, int port) {
    d->SetSendSockAddr(localIp, groupIp, port);
}
void UdpSocket::SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port) {
    d->SetGroupRecvSockAddr(localIp, groupIp, port);
}
int UdpSocket::SendData(const char* data, int length) const {
    return d->SendData(data, length);
}
void UdpSocket::notifyForQuit() {
    d->notifyForQuit();
}

// ---------------------------------------------------------------------------------------------- UdpSender

class UdpSenderPrivate {
public:
    UdpSenderPrivate(const char* address, unsigned short port, unsigned int localIp,
                     unsigned short localPort);

    int sendData(const char* data, int length);
    int sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas);
    void setMulticastLoop(bool on);
    const std::string& address() const { return m_address; }
    unsigned short port() const { return m_port; }

private:
    void report(const char* call, SourceSite site = SourceSite::here()) const {
        detail::reportSocketError(site, m_address.c_str(), m_port, call);
    }
    /// Reports of the set-up name the constructor, which readers of logs know.
    void reportSetUp(const char* call, int line = __builtin_LINE()) const {
        report(call, {"UdpSocket/udpsocket.cpp", "UdpSenderPrivate", line});
    }

    void setUp() REQUIRES(m_setUpMutex);
    bool hasSocket();
    bool setInterface() const;
    bool takesUpInterface();

    const std::string m_address;
    const unsigned short m_port; // host order
    const sockaddr_in m_destination;
    const sockaddr_in m_local;

    detail::Mutex m_setUpMutex;                                // one thread makes m_socket
    std::optional<bool> m_wantedLoop GUARDED_BY(m_setUpMutex); // else the profile decides
    Descriptor m_socket;                                       // made once, used from m_ready on
    std::atomic<bool> m_ready = false;
    std::atomic<bool> m_interfaceSet = true;
};

UdpSenderPrivate::UdpSenderPrivate(const char* address, unsigned short port, unsigned int localIp,
                                   unsigned short localPort)
    : m_address(address), m_port(port), m_destination(endpoint(::inet_addr(address), port)),
      m_local(endpoint(localIp, localPort)) {
    if (!hasSocket())
        reportSetUp("socket");
}

void UdpSenderPrivate::setUp() {
    if (!setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1))
        reportSetUp("setsockopt::SO_REUSEADDR");
    const Kind kind = kindOf(m_address);
    if (kind == Kind::Broadcast && !setOption(m_socket, SOL_SOCKET, SO_BROADCAST, 1))
        reportSetUp("setsockopt::SO_BROADCAST");
    m_interfaceSet = kind != Kind::Multicast || setInterface();
    if (!m_interfaceSet)
        reportSetUp("setsockopt::IP_MULTICAST_IF");
    const bool loop = m_wantedLoop ? *m_wantedLoop : detail::profileFlag("Local", "MulticastLoop", "false");
    if (!setOption(m_socket, IPPROTO_IP, IP_MULTICAST_LOOP, loop ? 1 : 0))
        reportSetUp("setsockopt::IP_MULTICAST_LOOP");
    if (!bindTo(m_socket, m_local))
        reportSetUp("bind");
}

/// A sender that was made while the system had no descriptor left would be dead for good: it asks again,
/// quietly, whenever it is used.
bool UdpSenderPrivate::hasSocket() {
    if (m_ready)
        return true;
    detail::Lock lock(m_setUpMutex);
    if (m_ready)
        return true;
    m_socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen())
        return false;
    setUp();
    m_ready = true;
    return true;
}

bool UdpSenderPrivate::setInterface() const {
    return setOption(m_socket, IPPROTO_IP, IP_MULTICAST_IF,
                     membership(m_destination.sin_addr.s_addr, m_local.sin_addr.s_addr));
}

/// A sender to a group goes through the interface that carried its address when it was made. Where there was
/// none yet, or another has taken its place, it would fail for good.
bool UdpSenderPrivate::takesUpInterface() {
    const int code = errno;
    if (kindOf(m_address) != Kind::Multicast || !setInterface()) {
        errno = code;
        return false;
    }
    if (!m_interfaceSet.exchange(true))
        bindTo(m_socket, m_local); // refused where the system has chosen a port meanwhile
    return true;
}

int UdpSenderPrivate::sendData(const char* data, int length) {
    if (!hasSocket())
        return -1;
    if (!m_interfaceSet)
        takesUpInterface();
    auto sent = static_cast<int>(sendTo(m_socket, data, length, m_destination));
    if (sent == -1 && isInterfaceGone(errno) && takesUpInterface())
        sent = static_cast<int>(sendTo(m_socket, data, length, m_destination));
    if (sent != length)
        report("sendto");
    return sent;
}

int UdpSenderPrivate::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas) {
    if (!hasSocket())
        return -1;
    std::vector<iovec> buffers(datas.size());
    std::vector<mmsghdr> messages(datas.size());
    for (size_t i = 0; i < datas.size(); ++i) {
        buffers[i] = {const_cast<void*>(datas[i].first), static_cast<size_t>(datas[i].second)};
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = const_cast<sockaddr_in*>(&m_destination);
        header.msg_namelen = sizeof m_destination;
        header.msg_iov = &buffers[i];
        header.msg_iovlen = 1;
    }
    if (!m_interfaceSet)
        takesUpInterface();
    const auto send = [&] {
        return ::sendmmsg(m_socket.get(), messages.data(), static_cast<unsigned int>(messages.size()), 0);
    };
    int sent = send();
    if (sent == -1 && isInterfaceGone(errno) && takesUpInterface())
        sent = send();
    if (sent == -1)
        report("sendmmsg");
    return sent;
}

void UdpSenderPrivate::setMulticastLoop(bool on) {
    {
        detail::Lock lock(m_setUpMutex);
        m_wantedLoop = on;
    }
    if (!hasSocket() || !setOption(m_socket, IPPROTO_IP, IP_MULTICAST_LOOP, on ? 1 : 0))
        report("setsockopt::IP_MULTICAST_LOOP");
}

UdpSender::UdpSender(const char* address, unsigned short port, unsigned int localIp, unsigned short localPort)
    : d(new UdpSenderPrivate(address, port, localIp, localPort)) {}
UdpSender::UdpSender(const NetAddress& destination, unsigned int localIp, unsigned short localPort)
    : UdpSender(transAddr(destination.ip), NtoHs(destination.port), localIp, localPort) {}
UdpSender::~UdpSender() {
    delete d;
}
int UdpSender::sendData(const char* data, int length) const {
    return d->sendData(data, length);
}
int UdpSender::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas) {
    return d->sendMultipleDatas(datas);
}
void UdpSender::setMulticastLoop(bool on) {
    d->setMulticastLoop(on);
}
const char* UdpSender::addr() const {
    return d->address().c_str();
}
unsigned short UdpSender::port() const {
    return d->port();
}
void UdpSender::notifyForQuit() {}

// -------------------------------------------------------------------------------------------- UdpReceiver

namespace {

/// The system grants less than was asked without a word; once a process, we say so.
/// @return whether it was asked at all (else errno)
bool askForBuffer(const Descriptor& socket, int bytes) {
    if (!setOption(socket, SOL_SOCKET, SO_RCVBUF, bytes))
        return false;
    int doubled = 0; // the value read back counts what the system needs for itself
    socklen_t length = sizeof doubled;
    static std::once_flag said;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &doubled, &length) == 0 && doubled / 2 < bytes)
        std::call_once(said, [&] {
            std::fprintf(
                stderr,
                "UdpReceiver: the system grants %d of %d bytes of receive buffer (net.core.rmem_max), "
                "many radars at once may not all be heard\n",
                doubled / 2, bytes);
        });
    return true;
}

} // namespace

UdpReceiverPrivate::UdpReceiverPrivate(iUdpDataListener* listener, unsigned int localIp, const char* address,
                                       unsigned short port, int bufferSize)
    : m_address(address), m_port(port), m_localIp(localIp), m_listened(::inet_addr(address)),
      m_listener(listener), m_bufferSize(bufferSize), m_buffer(new char[static_cast<size_t>(bufferSize)]) {
    setUp(true);
    if (!detail::launchThread(m_thread, [this] { recvThread(); }))
        report("thread");
}

UdpReceiverPrivate::~UdpReceiverPrivate() {
    m_running = false;
    m_ending.stop();
    {
        detail::Lock lock(m_socketMutex);
        m_socket.wakeReader();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void UdpReceiverPrivate::report(const char* call, SourceSite site) const {
    detail::reportSocketError(site, m_address.c_str(), m_port, call);
}

/// Reports of the set-up name the constructor, which readers of logs know, also when the thread repeats it.
void UdpReceiverPrivate::report(bool wanted, const char* call, int line) const {
    if (wanted)
        report(call, {"UdpSocket/udpsocket.cpp", "UdpReceiverPrivate", line});
}

void UdpReceiverPrivate::setUp(bool reporting) {
    Descriptor socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!socket.isOpen()) {
        report(reporting, "socket");
        return;
    }
    if (!setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1))
        report(reporting, "setsockopt::SO_REUSEADDR");
    if (!setOption(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBufferFactor * m_bufferSize))
        report(reporting, "setsockopt::SO_RCVBUF");
    if (!bindTo(socket, endpoint(m_listened, m_port))) {
        report(reporting, "bind");
        return;
    }
    const Kind kind = kindOf(m_address);
    if (kind == Kind::Broadcast && !setOption(socket, SOL_SOCKET, SO_BROADCAST, 1))
        report(reporting, "setsockopt::SO_BROADCAST");
    m_interface = detail::interfaceIndex(m_localIp, m_listened);
    m_joined = kind != Kind::Multicast ||
               setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership(m_listened, m_localIp));
    if (!m_joined)
        report(reporting, "setsockopt::IP_ADD_MEMBERSHIP");
    pinToInterface(socket, reporting);
    if (!setOption(socket, SOL_SOCKET, SO_RCVTIMEO, kReceiverTimeOut))
        report(reporting, "setsockopt::SO_RCVTIMEO");

    detail::Lock lock(m_socketMutex);
    if (m_wantedBuffer != 0) // a repair, which does not repeat complaints
        askForBuffer(socket, m_wantedBuffer);
    m_socket = std::move(socket);
}

void UdpReceiverPrivate::pinToInterface(const Descriptor& socket, bool reporting) {
    const std::string name = localIfaName(m_localIp);
    if (name.empty())
        return;
    ifreq request{};
    detail::deviceName(name).copy(request.ifr_name, sizeof request.ifr_name - 1);
    if (!setOption(socket, SOL_SOCKET, SO_BINDTODEVICE, request))
        report(reporting, "setsockopt::SO_BINDTODEVICE");

    if (!detail::isDottedQuad(m_address) || !detail::isInterfaceName(name))
        return;
    const std::string route = "route add -net " + m_address + " netmask 255.255.255.255 " + name;
    if (!tNetIPHelper::SystemCmd("sudo " + route, false))
        tNetIPHelper::SystemCmd(route, false); // fails harmlessly where the route stands already
}

void UdpReceiverPrivate::recvThread() {
    using Clock = std::chrono::steady_clock;
    sockaddr_in source{};
    detail::SourceText sourceText;
    auto nextLook = Clock::now() + kMendPeriod;
    while (m_running) {
        if (m_socket.isOpen()) {
            const ssize_t count = receiveFrom(m_socket, m_buffer.get(), m_bufferSize, source);
            if (count > 0 && m_listener != nullptr)
                m_listener->OnUdpGroupDataReceived(sourceText.of(source.sin_addr), ntohs(source.sin_port),
                                                   m_address.c_str(), m_port, m_buffer.get(),
                                                   static_cast<int>(count));
            else if (count < 0 && errno != EAGAIN)
                report("recvfrom");
            if (count >= 0)
                continue;
        } else {
            m_ending.sleep(kSilence);
        }
        if (m_running && Clock::now() >= nextLook) {
            mend();
            nextLook = Clock::now() + kMendPeriod;
        }
    }
}

void UdpReceiverPrivate::mend() {
    if (!m_socket.isOpen()) {
        setUp(false);
        return;
    }
    char name[IF_NAMESIZE];
    if (m_localIp == 0 && m_joined && ::if_indextoname(m_interface, name) != nullptr)
        return; // another interface may be the system's choice by now, but this one is there
    const unsigned int interface = detail::interfaceIndex(m_localIp, m_listened);
    if (interface != 0 && (interface != m_interface || !m_joined))
        setUp(false);
}

void UdpReceiverPrivate::growReceiveBuffer(UdpReceiver& receiver, int bytes) {
    UdpReceiverPrivate& own = *receiver.d;
    detail::Lock lock(own.m_socketMutex);
    own.m_wantedBuffer = bytes;
    if (own.m_socket.isOpen() && !askForBuffer(own.m_socket, bytes))
        own.report("setsockopt::SO_RCVBUF");
}

bool UdpReceiverPrivate::hasThread(const UdpReceiver& receiver) {
    return receiver.d->m_thread.joinable();
}

UdpReceiver::UdpReceiver(iUdpDataListener* listener, unsigned int localIp, const char* address,
                         unsigned short port, int bufferSize)
    : d(new UdpReceiverPrivate(listener, localIp, address, port, bufferSize)) {}
UdpReceiver::UdpReceiver(iUdpDataListener* listener, unsigned int localIp, const NetAddress& address,
                         int bufferSize)
    : UdpReceiver(listener, localIp, transAddr(address.ip), NtoHs(address.port), bufferSize) {}
UdpReceiver::~UdpReceiver() {
    delete d;
}
const char* UdpReceiver::addr() const {
    return d->address().c_str();
}
unsigned short UdpReceiver::port() const {
    return d->port();
}
void UdpReceiver::notifyForQuit() {
    d->notifyForQuit();
}

// --------------------------------------------------------------------------------------------- UdpChecker

UdpChecker::UdpChecker(const char* groupIp, unsigned short port, const char* expected)
    : d(new UdpCheckerPrivate(groupIp, port, expected)) {}
UdpChecker::~UdpChecker() {
    delete d;
}
void UdpChecker::addListener(iUdpCheckerListener* listener) {
    d->addListener(listener);
}
void UdpChecker::removeListener(iUdpCheckerListener* listener) {
    d->removeListener(listener);
}

} // namespace net
