#include <UdpSocket/transport/udp_receiver.h>

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/command.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/transport/destination.h>
#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/udp_sites.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>

namespace net {

namespace {

namespace udp_site = detail::udp_site;

constexpr timeval kReceiveTimeOut{0, 500000};             // how often the thread looks at the running flag
constexpr auto kSilence = std::chrono::milliseconds(500); // the same without a socket
constexpr int kReceiveBufferFactor = 10; // waiting datagrams of full size that a receiver asks room for

constexpr auto kFailurePause = std::chrono::milliseconds(100); // after a call that did not even wait
constexpr auto kSudoLimit = std::chrono::seconds(4); // with the next, what a hanging command may cost
constexpr auto kCommandLimit = std::chrono::seconds(1);

// What the answers of a full plan take of a receive buffer, as the system counts: 49 datagrams, each in a
// driver's buffer of 2 KiB with its bookkeeping.
constexpr int kFullPlan = 49 * 2304;

detail::LineLimit s_receiveLines;

/// Asks for @p bytes. @param granted what the system counts up to from then on @return false: refused (errno)
bool askForBuffer(const detail::Descriptor& socket, int bytes, int& granted) {
    socklen_t length = sizeof granted;
    if (!detail::setOption(socket, SOL_SOCKET, SO_RCVBUF, bytes))
        return false;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &granted, &length) != 0)
        granted = kFullPlan; // unknown: nothing to complain about
    return true;
}

/// The system grants less than was asked without a word; where radars may go unheard, we say so once a
/// process.
void tellOfSmallBuffer(int asked, int granted) {
    static std::atomic_flag s_said;
    if (granted < std::min(2 * std::int64_t{asked}, std::int64_t{kFullPlan}) && !s_said.test_and_set())
        std::fprintf(stderr,
                     "UdpReceiver: the system grants %d of %d bytes of receive buffer (net.core.rmem_max), "
                     "many radars at once may not all be heard\n",
                     granted / 2, asked); // the value read back counts what the system needs for itself
}

} // namespace

UdpReceiverPrivate::UdpReceiverPrivate(iUdpDataListener* listener, unsigned int localIp, const char* address,
                                       unsigned short port, int bufferSize)
    : m_errors(address, port), m_localIp(localIp), m_listened(::inet_addr(address)), m_listener(listener),
      m_bufferSize(bufferSize), m_buffer(new char[static_cast<size_t>(bufferSize)]) {
    setUp(Attempt::First);
    if (!detail::launchThread(m_thread, "radar-recv", [this] { recvThread(); }))
        m_errors.report(udp_site::kReceiverThread);
}

UdpReceiverPrivate::~UdpReceiverPrivate() {
    m_running = false;
    m_ending.stop();
    {
        detail::Lock lock(m_socketMutex);
        detail::wakeReader(m_socket);
    }
    if (m_thread.joinable())
        m_thread.join();
    endRoute();
}

void UdpReceiverPrivate::report(Attempt attempt, const detail::ReportSite& site) const {
    if (attempt == Attempt::First) // later ones do not repeat complaints
        m_errors.report(site);
}

void UdpReceiverPrivate::setUp(Attempt attempt) {
    detail::Descriptor socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!socket.isOpen()) {
        report(attempt, udp_site::kReceiverSocket);
        return;
    }
    if (!detail::setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1))
        report(attempt, udp_site::kReceiverReuse);
    if (!detail::setOption(socket, SOL_SOCKET, SO_RCVBUF, kReceiveBufferFactor * m_bufferSize))
        report(attempt, udp_site::kReceiverBuffer);
    const detail::Kind kind = detail::kindOf(address());
    // From the bind on, the socket would hear what other programs' memberships bring in on other interfaces.
    const bool ownOnly = kind == detail::Kind::Multicast && m_localIp != 0;
    if (ownOnly && !detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0))
        report(attempt, udp_site::kReceiverAllGroups);
    if (!detail::bindTo(socket, detail::makeAddress(m_listened, port()))) {
        report(attempt, udp_site::kReceiverBind);
        return;
    }
    if (kind == detail::Kind::Broadcast && !detail::setOption(socket, SOL_SOCKET, SO_BROADCAST, 1))
        report(attempt, udp_site::kReceiverBroadcast);
    const std::string name =
        attempt == Attempt::First ? localIfaName(m_localIp) : detail::interfaceName(m_localIp);
    const bool nameless = m_localIp != 0 && name.empty(); // not tied to its interface: repair() tries again
    m_interface = nameless ? 0 : detail::interfaceIndex(m_localIp, m_listened);
    m_links = detail::LinkHistory::ofThisNetwork();
    m_removals = m_links ? m_links->removals(m_interface) : 0;
    m_joined = kind != detail::Kind::Multicast || detail::joinGroup(socket, m_listened, m_localIp);
    if (!m_joined)
        report(attempt, udp_site::kReceiverJoin);
    if (!m_joined && ownOnly) // then it is to hear what arrives all the same
        detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 1);
    if (!name.empty() && !detail::bindToDevice(socket, detail::deviceName(name)))
        report(attempt, udp_site::kReceiverDevice);
    if (attempt == Attempt::First)
        addRoute(name);
    if (!detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, kReceiveTimeOut))
        report(attempt, udp_site::kReceiverTimeOut);
    {
        detail::Lock lock(m_socketMutex);
        int granted = 0;
        if (m_wantedBuffer != 0)
            askForBuffer(socket, m_wantedBuffer, granted);
        m_socket = std::move(socket);
    }
    if (attempt == Attempt::Repair)
        addRouteBesides(name);
}

/// Runs the route command for the interface of this name, as long as nobody ends it.
void UdpReceiverPrivate::addRoute(const std::string& name) {
    if (!detail::isDottedQuad(address()) || !detail::isInterfaceName(name))
        return;
    const std::string route = "route add -net " + address() + " netmask 255.255.255.255 " + name;
    // The second fails harmlessly where the route stands already.
    if (!detail::runCommandWithin("sudo " + route, kSudoLimit, m_routeEnding))
        detail::runCommandWithin(route, kCommandLimit, m_routeEnding);
}

/// The same on a thread of its own, so that the new socket is read meanwhile, also where the command of an
/// earlier repair hangs.
void UdpReceiverPrivate::addRouteBesides(const std::string& name) {
    endRoute();
    m_routeEnding.reset();
    detail::launchThread(m_route, "radar-route",
                         [this, name] { detail::runStep("UdpReceiver: a route", [&] { addRoute(name); }); });
}

void UdpReceiverPrivate::endRoute() {
    m_routeEnding.stop();
    if (m_route.joinable())
        m_route.join();
}

void UdpReceiverPrivate::recvThread() {
    detail::SourceText sourceText;
    auto nextLook = detail::coarseNow() + detail::timing().receiverRepair;
    while (m_running) {
        if (m_socket.isOpen())
            receive(sourceText);
        else
            m_ending.sleep(kSilence);
        if (detail::coarseNow() >= nextLook && m_running) {
            detail::runStep("UdpReceiver: a look at its interface", [this] { repair(); });
            nextLook = detail::coarseNow() + detail::timing().receiverRepair;
        }
    }
}

void UdpReceiverPrivate::receive(detail::SourceText& sourceText) {
    const detail::Received received = detail::receiveFrom(m_socket, m_buffer.get(), m_bufferSize);
    if (received.count > 0 && m_listener != nullptr) {
        detail::runStep("UdpReceiver: a datagram", [&] {
            const Call call(*this);
            m_listener->OnUdpGroupDataReceived(sourceText.of(received.source.sin_addr),
                                               ntohs(received.source.sin_port), address().c_str(), port(),
                                               m_buffer.get(), static_cast<int>(received.count));
        });
        return;
    }
    if (received.isDatagram() || received.isTimeOut())
        return;
    if (received.count < 0) {
        errno = received.error;
        m_errors.report(udp_site::kReceiverReceive, s_receiveLines);
    }
    m_ending.sleep(kFailurePause);
}

void UdpReceiverPrivate::repair() {
    if (!m_socket.isOpen()) {
        setUp(Attempt::Repair);
        return;
    }
    const bool removed = wasInterfaceRemoved();
    if (removed && m_joined) { // at once, if possible before the interface is back, see leaveGroup()
        detail::leaveGroup(m_socket, m_listened, m_interface);
        m_joined = false;
    }
    char name[IF_NAMESIZE];
    if (!removed && m_localIp == 0 && m_joined && !m_followsRoute &&
        ::if_indextoname(m_interface, name) != nullptr)
        return; // another interface may be the system's choice by now, but this one is there
    const unsigned int interface = detail::interfaceIndex(m_localIp, m_listened);
    if (interface == 0 || (interface == m_interface && !removed && m_joined))
        return;
    setUp(Attempt::Repair);
}

/// Whether the interface of the socket has been removed since, also when one of its index is there again.
bool UdpReceiverPrivate::wasInterfaceRemoved() {
    if (m_links)
        return m_links->removals(m_interface) != m_removals;
    m_links = detail::LinkHistory::ofThisNetwork(); // it could not be had when the socket was set up
    m_removals = m_links ? m_links->removals(m_interface) : 0;
    return false;
}

void UdpReceiverPrivate::growReceiveBuffer(UdpReceiver& receiver, int bytes) {
    UdpReceiverPrivate& own = *receiver.d;
    int granted = kFullPlan;
    int error = 0;
    {
        detail::Lock lock(own.m_socketMutex);
        own.m_wantedBuffer = bytes;
        if (own.m_socket.isOpen() && !askForBuffer(own.m_socket, bytes, granted))
            error = errno;
    }
    tellOfSmallBuffer(bytes, granted);
    errno = error;
    if (error != 0)
        own.m_errors.report(udp_site::kReceiverGrowBuffer);
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
    detail::destroy(d);
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

} // namespace net
