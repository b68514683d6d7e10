#include <UdpSocket/transport/udp_sender.h>

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/settings/settings.h>
#include <UdpSocket/transport/destination.h>
#include <UdpSocket/transport/udp_sites.h>

#include <arpa/inet.h>
#include <sys/uio.h>

#include <cerrno>
#include <vector>

namespace net {

namespace {

namespace udp_site = detail::udp_site;

detail::LineLimit s_sendLines; // a host answers whoever asks

/// Of a send: the interface was removed, or does not carry the address any more and is down.
bool isInterfaceGone(int error) {
    return error == ENODEV || error == ENETUNREACH;
}

} // namespace

UdpSenderPrivate::UdpSenderPrivate(const char* address, unsigned short port, unsigned int localIp,
                                   unsigned short localPort)
    : m_errors(address, port), m_destination(detail::makeAddress(::inet_addr(address), port)),
      m_local(detail::makeAddress(localIp, localPort)) {
    if (!ensureSocket())
        m_errors.report(udp_site::kSenderSocket);
}

/// The socket is not open where the system has none. Prints, so no lock is held.
UdpSenderPrivate::Made UdpSenderPrivate::setUp() {
    Made made{detail::openSocket(SOCK_DGRAM, IPPROTO_UDP)};
    const detail::Descriptor& socket = made.socket;
    if (!socket.isOpen())
        return made;
    if (!detail::setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1))
        m_errors.report(udp_site::kSenderReuse);
    const detail::Kind kind = detail::kindOf(address());
    if (kind == detail::Kind::Broadcast && !detail::setOption(socket, SOL_SOCKET, SO_BROADCAST, 1))
        m_errors.report(udp_site::kSenderBroadcast);
    made.interfaceSet = kind != detail::Kind::Multicast || setInterface(socket);
    if (!made.interfaceSet)
        m_errors.report(udp_site::kSenderInterface);
    if (!detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_LOOP, settings::multicastLoop() ? 1 : 0))
        m_errors.report(udp_site::kSenderLoop);
    if (!detail::bindTo(socket, m_local))
        m_errors.report(udp_site::kSenderBind);
    return made;
}

/// A sender that was made while the system had no descriptor left would stay dead: it asks again,
/// quietly, whenever it is used.
bool UdpSenderPrivate::ensureSocket() {
    if (m_ready)
        return true;
    Made made = setUp();
    if (!made.socket.isOpen())
        return false;
    detail::Lock lock(m_setUpMutex);
    if (m_ready)
        return true; // another thread was faster
    if (m_wantedLoop)
        detail::setOption(made.socket, IPPROTO_IP, IP_MULTICAST_LOOP, *m_wantedLoop ? 1 : 0);
    m_socket = std::move(made.socket);
    m_interfaceSet = made.interfaceSet;
    m_nextLook = detail::coarseNow() + detail::timing().senderLook;
    m_ready = true;
    return true;
}

bool UdpSenderPrivate::setInterface(const detail::Descriptor& socket) const {
    return detail::setOption(socket, IPPROTO_IP, IP_MULTICAST_IF,
                             detail::membership(m_destination.sin_addr.s_addr, m_local.sin_addr.s_addr));
}

/// A sender to a group goes through the interface that carried its address when it was made. Where there was
/// none yet, or another has taken its place, it would fail permanently.
bool UdpSenderPrivate::adoptInterface() {
    const int code = errno;
    if (detail::kindOf(address()) != detail::Kind::Multicast || !setInterface(m_socket)) {
        errno = code;
        return false;
    }
    if (!m_interfaceSet.exchange(true))
        detail::bindTo(m_socket, m_local); // refused where the system has chosen a port meanwhile
    return true;
}

/// Where the address has moved and its interface is still up, no send would fail.
void UdpSenderPrivate::followAddress() {
    const auto now = detail::coarseNow();
    if (m_interfaceSet && now < m_nextLook.load())
        return;
    m_nextLook = now + detail::timing().senderLook;
    adoptInterface();
}

int UdpSenderPrivate::sendData(const char* data, int length, int flags) {
    if (!ensureSocket())
        return -1;
    followAddress();
    auto sent = static_cast<int>(detail::sendTo(m_socket, data, length, m_destination, flags));
    if (sent == -1 && isInterfaceGone(errno) && adoptInterface())
        sent = static_cast<int>(detail::sendTo(m_socket, data, length, m_destination, flags));
    if (sent != length)
        m_errors.report(udp_site::kSenderSend, s_sendLines);
    return sent;
}

int UdpSenderPrivate::sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas) {
    if (!ensureSocket())
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
    followAddress();
    const auto send = [&] {
        return ::sendmmsg(m_socket.get(), messages.data(), static_cast<unsigned int>(messages.size()), 0);
    };
    int sent = send();
    if (sent == -1 && isInterfaceGone(errno) && adoptInterface())
        sent = send();
    if (sent == -1)
        m_errors.report(udp_site::kSenderSendMultiple);
    return sent;
}

void UdpSenderPrivate::setMulticastLoop(bool on) {
    {
        detail::Lock lock(m_setUpMutex);
        m_wantedLoop = on;
    }
    if (!ensureSocket() || !detail::setOption(m_socket, IPPROTO_IP, IP_MULTICAST_LOOP, on ? 1 : 0))
        m_errors.report(udp_site::kSenderSetLoop);
}

UdpSender::UdpSender(const char* address, unsigned short port, unsigned int localIp, unsigned short localPort)
    : d(new UdpSenderPrivate(address, port, localIp, localPort)) {}
UdpSender::UdpSender(const NetAddress& destination, unsigned int localIp, unsigned short localPort)
    : UdpSender(transAddr(destination.ip), NtoHs(destination.port), localIp, localPort) {}
UdpSender::~UdpSender() {
    detail::destroy(d);
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

} // namespace net
