#include <UdpSocket/detail/udp_checker.h>

#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/detail/socket_error.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <vector>

namespace net {

namespace {

using detail::Descriptor;
using detail::setOption;

constexpr std::chrono::seconds kPauseBetweenChecks{5};
constexpr timeval kProbeTimeOut{2, 0};
constexpr size_t kLongestText = 128;

} // namespace

UdpCheckerPrivate::UdpCheckerPrivate(const char* groupIp, unsigned short port, const char* expected)
    : m_group(groupIp), m_port(port), m_expected(expected) {
    if (!detail::launchThread(m_thread, [this] { check(); }))
        report("thread", __LINE__);
}

UdpCheckerPrivate::~UdpCheckerPrivate() {
    m_pause.stop();
    {
        detail::Lock lock(m_probesMutex);
        for (const Probe& probe : m_probes)
            probe.socket.wakeReader();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void UdpCheckerPrivate::addListener(iUdpCheckerListener* listener) {
    unsigned int foundIp;
    {
        detail::Lock lock(m_mutex);
        m_listeners.push_back(listener);
        foundIp = m_foundIp;
    }
    // Again where another was found during the call: the one told last must be the one in force.
    for (unsigned int told = 0; foundIp != 0 && foundIp != told;) {
        listener->OnUdpCheckerIpFound(foundIp);
        told = foundIp;
        detail::Lock lock(m_mutex);
        foundIp = m_foundIp;
    }
}

void UdpCheckerPrivate::removeListener(iUdpCheckerListener* listener) {
    detail::Lock lock(m_mutex);
    m_listeners.remove(listener);
}

void UdpCheckerPrivate::check() {
    do {
        const unsigned int foundIp = probeAll();
        if (m_pause.stopped())
            return;
        store(foundIp);
    } while (m_pause.sleep(kPauseBetweenChecks));
}

/// Listens once through every local address at the same time. @return one that the text came through, or 0
unsigned int UdpCheckerPrivate::probeAll() {
    std::vector<Probe*> probes; // those of m_probes, which only this thread changes
    for (const unsigned int localIp : localIpSet()) {
        if (localIp == 0) // the addresses could not be listed
            continue;
        detail::Lock lock(m_probesMutex);
        if (m_pause.stopped())
            break;
        Probe& probe = m_probes.emplace_back();
        probes.push_back(&probe);
        probe.localIp = localIp;
        probe.socket = openProbe(localIp);
        if (probe.socket.isOpen() && !detail::launchThread(probe.thread, [this, &probe] {
                probe.heard = receivesExpected(probe.socket);
            }))
            report("thread", __LINE__);
    }
    unsigned int foundIp = 0;
    for (Probe* probe : probes) {
        if (probe->thread.joinable())
            probe->thread.join();
        if (probe->heard)
            foundIp = probe->localIp;
    }
    detail::Lock lock(m_probesMutex);
    m_probes.clear();
    return foundIp;
}

Descriptor UdpCheckerPrivate::openProbe(unsigned int localIp) const {
    Descriptor socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!socket.isOpen()) {
        report("socket", __LINE__);
        return {};
    }
    if (!setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1))
        report("setsockopt::SO_REUSERADDR", __LINE__);
    // Otherwise the socket would hear what any other probe's membership brings in.
    if (!setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0))
        report("setsockopt::IP_MULTICAST_ALL", __LINE__);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_port = htons(m_port);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&bound), sizeof bound) != 0) {
        report("bind", __LINE__);
        return {};
    }
    const ip_mreq membership{in_addr{::inet_addr(m_group.c_str())}, in_addr{localIp}};
    if (!setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership)) {
        report("setsockopt::IP_ADD_MEMBERSHIP", __LINE__);
        return {};
    }
    if (!setOption(socket, SOL_SOCKET, SO_RCVTIMEO, kProbeTimeOut))
        report("setsockopt::SO_RCVTIMEO", __LINE__);
    return socket;
}

/// Whether one datagram arrives in time that is the expected text or its beginning.
bool UdpCheckerPrivate::receivesExpected(const Descriptor& socket) const {
    char buffer[kLongestText] = {};
    const ssize_t count = ::recv(socket.get(), buffer, sizeof buffer, 0);
    return count > 0 && static_cast<size_t>(count) <= std::strlen(m_expected) &&
           std::memcmp(buffer, m_expected, static_cast<size_t>(count)) == 0;
}

/// Listeners hear of an address that is new or another one, never of a loss.
void UdpCheckerPrivate::store(unsigned int foundIp) {
    std::list<iUdpCheckerListener*> listeners;
    {
        detail::Lock lock(m_mutex);
        if (foundIp != 0 && foundIp != m_foundIp)
            listeners = m_listeners;
        m_foundIp = foundIp;
    }
    for (iUdpCheckerListener* listener : listeners)
        listener->OnUdpCheckerIpFound(foundIp);
}

/// Reports name the public class's source file and a thread's function, which readers of logs know.
void UdpCheckerPrivate::report(const char* call, int line) const {
    detail::reportSocketError({"UdpSocket/udpsocket.cpp", "operator()", line}, m_group.c_str(), m_port, call);
}

} // namespace net
