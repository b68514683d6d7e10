#include <UdpSocket/udpsocket.h>

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/scope_exit.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/udp_sites.h>

#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace net {

namespace {

namespace udp_site = detail::udp_site;
using detail::Descriptor;
using detail::setOption;

constexpr size_t kLongestText = 128;

} // namespace

class UdpCheckerPrivate : public detail::ProcessBound {
public:
    UdpCheckerPrivate(const char* groupIp, unsigned short port, const char* expected);
    ~UdpCheckerPrivate();

    void addListener(iUdpCheckerListener* listener);
    void removeListener(iUdpCheckerListener* listener);

private:
    struct Probe {
        unsigned int localIp; // network order
        detail::Descriptor socket;
        int heard = 0; // its place in the order of those that heard the text; 0: none
        std::thread thread;
    };

    void check();
    unsigned int probeAll(const std::set<unsigned int>& addresses);
    detail::Descriptor openProbe(unsigned int localIp) const;
    void endProbes();
    bool receivesExpected(const detail::Descriptor& socket) const;
    void store(unsigned int foundIp);

    const detail::ErrorReporter m_errors; // the group and port listened on
    const char* const m_expected;

    detail::Mutex m_mutex; // never held while a listener runs
    std::list<iUdpCheckerListener*> m_listeners GUARDED_BY(m_mutex);
    unsigned int m_foundIp GUARDED_BY(m_mutex) = 0; // network order; 0 while none

    detail::Mutex m_probesMutex; // the checker's thread alone changes the list
    std::list<Probe>
        m_probes GUARDED_BY(m_probesMutex); // the sockets stay open until their threads have ended

    detail::Pause m_pause;
    std::thread m_thread;
};

UdpCheckerPrivate::UdpCheckerPrivate(const char* groupIp, unsigned short port, const char* expected)
    : m_errors(groupIp, port), m_expected(expected) {
    if (!detail::launchThread(m_thread, "radar-check", [this] { check(); }))
        m_errors.report(udp_site::kCheckerThread);
}

UdpCheckerPrivate::~UdpCheckerPrivate() {
    m_pause.stop();
    {
        detail::Lock lock(m_probesMutex);
        for (const Probe& probe : m_probes)
            detail::wakeReader(probe.socket);
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
        detail::runStep("UdpChecker: a check", [this] {
            const std::set<unsigned int> addresses = localIpSet();
            if (addresses.contains(0))
                return; // not listed, which is no address that is lost
            const unsigned int foundIp = probeAll(addresses);
            if (!m_pause.stopped())
                store(foundIp);
        });
    } while (m_pause.sleep(detail::timing().checkerPause));
}

/// Listens once through all of @p addresses at the same time. @return the one that the text came through, or
/// came through last; or 0
unsigned int UdpCheckerPrivate::probeAll(const std::set<unsigned int>& addresses) {
    std::vector<Probe*> probes; // those of m_probes, which only this thread changes
    std::atomic<int> heard = 0; // how many have heard the text
    const detail::ScopeExit end([this] { endProbes(); });
    for (const unsigned int localIp : addresses) {
        detail::Lock lock(m_probesMutex);
        if (m_pause.stopped())
            break;
        Probe& probe = m_probes.emplace_back();
        probes.push_back(&probe);
        probe.localIp = localIp;
        probe.socket = openProbe(localIp);
        if (probe.socket.isOpen() &&
            !detail::launchThread(probe.thread, "radar-chk-probe", [this, &probe, &heard] {
                if (receivesExpected(probe.socket))
                    probe.heard = ++heard;
            }))
            m_errors.report(udp_site::kCheckerProbeThread);
    }
    for (Probe* probe : probes)
        if (probe->thread.joinable())
            probe->thread.join();
    const auto last = std::ranges::max_element(probes, {}, [](const Probe* probe) { return probe->heard; });
    return last == probes.end() || (*last)->heard == 0 ? 0 : (*last)->localIp;
}

void UdpCheckerPrivate::endProbes() {
    std::list<Probe> ended;
    {
        detail::Lock lock(m_probesMutex);
        ended.swap(m_probes);
    }
    for (const Probe& probe : ended)
        detail::wakeReader(probe.socket);
    for (Probe& probe : ended)
        if (probe.thread.joinable()) // the check was given up
            probe.thread.join();
}

Descriptor UdpCheckerPrivate::openProbe(unsigned int localIp) const {
    Descriptor socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!socket.isOpen()) {
        m_errors.report(udp_site::kCheckerSocket);
        return {};
    }
    if (!setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1))
        m_errors.report(udp_site::kCheckerReuse);
    // Otherwise the socket would hear what any other probe's membership brings in.
    if (!setOption(socket, IPPROTO_IP, IP_MULTICAST_ALL, 0))
        m_errors.report(udp_site::kCheckerAllGroups);
    if (!detail::bindTo(socket, detail::makeAddress(INADDR_ANY, m_errors.port()))) {
        m_errors.report(udp_site::kCheckerBind);
        return {};
    }
    if (!detail::joinGroup(socket, ::inet_addr(m_errors.address().c_str()), localIp)) {
        m_errors.report(udp_site::kCheckerJoin);
        return {};
    }
    if (!setOption(socket, SOL_SOCKET, SO_RCVTIMEO, detail::toTimeval(detail::timing().checkerProbe)))
        m_errors.report(udp_site::kCheckerTimeOut);
    return socket;
}

/// Whether one datagram arrives in time that is the expected text, with or without the zero byte behind it,
/// or its beginning.
bool UdpCheckerPrivate::receivesExpected(const Descriptor& socket) const {
    const auto end = std::chrono::steady_clock::now() + detail::timing().checkerProbe;
    char buffer[kLongestText] = {};
    ssize_t count;
    do // an interruption ends no probe
        count = ::recv(socket.get(), buffer, sizeof buffer, 0);
    while (count == -1 && errno == EINTR && std::chrono::steady_clock::now() < end);
    return count > 0 && static_cast<size_t>(count) <= std::strlen(m_expected) + 1 &&
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
    bool told = false;
    const detail::ScopeExit tellAgain([&] { // after the next check, where memory ran out in a listener
        if (told)
            return;
        detail::Lock lock(m_mutex);
        m_foundIp = 0;
    });
    const Call call(*this);
    for (iUdpCheckerListener* listener : listeners)
        listener->OnUdpCheckerIpFound(foundIp);
    told = true;
}

UdpChecker::UdpChecker(const char* groupIp, unsigned short port, const char* expected)
    : d(new UdpCheckerPrivate(groupIp, port, expected)) {}
UdpChecker::~UdpChecker() {
    detail::destroy(d);
}
void UdpChecker::addListener(iUdpCheckerListener* listener) {
    d->addListener(listener);
}
void UdpChecker::removeListener(iUdpCheckerListener* listener) {
    d->removeListener(listener);
}

} // namespace net
