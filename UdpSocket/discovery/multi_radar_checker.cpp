#include <UdpSocket/discovery/multi_radar_checker.h>

#include <UdpSocket/base/scope_exit.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/settings/settings.h>
#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>

namespace {

using Phase = protocol::InterfaceSearch::Phase;

unsigned int interfaceAddress(const std::string& netName) {
    for (const auto& [address, interface] : net::localNetworkInterfaces())
        if (interface.name.find(netName) != std::string::npos)
            return address;
    return 0;
}

} // namespace

/// Hears whether radars are there.
class MultiRadarCheckHelper : public net::iUdpDataListener {
public:
    /// Called on the thread of the probe's receiver.
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int len) override {
        if (protocol::isSignOfRadar({data, static_cast<std::size_t>(len)}))
            m_heard = true;
    }
    virtual ~MultiRadarCheckHelper() = default;

    bool heard() const { return m_heard; }

private:
    std::atomic<bool> m_heard = false;
};

/// What a search has open on one local address.
class InterfaceProbe {
public:
    InterfaceProbe(const wire::Group& group, unsigned int localIp)
        : m_localIp(localIp), m_receiver(net::detail::makeReceiver(&m_helper, group, localIp)) {}

    unsigned int localIp() const { return m_localIp; }
    bool heard() const { return m_helper.heard(); }
    void query() {
        m_sender = net::detail::makeSender(wire::kDiscovery, m_localIp);
        net::detail::send(*m_sender, wire::text(wire::kQuery));
    }

private:
    const unsigned int m_localIp;
    MultiRadarCheckHelper m_helper;
    std::unique_ptr<net::UdpReceiver> m_receiver;
    std::unique_ptr<net::UdpSender> m_sender;
};

MultiRadarCheckerPrivate::MultiRadarCheckerPrivate(iMultiRadarCheckerListener* owner,
                                                   std::function<void()> repair)
    : m_listeners{owner}, m_repair(std::move(repair)), m_search(net::detail::timing().search) {
    const std::string netName = net::settings::netName();
    const net::settings::LocalAddress local = net::settings::localAddress();
    m_configured = local.ip;
    if (m_configured == 0 && !netName.empty())
        m_configured = interfaceAddress(netName);
    std::printf("LocalIP (%s): %s\n", netName.c_str(), local.text.c_str());
    m_thread = net::detail::startThread("radar-search", [this] { run(); });
}

MultiRadarCheckerPrivate::~MultiRadarCheckerPrivate() {
    stop();
}

void MultiRadarCheckerPrivate::stop() {
    {
        net::detail::Lock lock(m_controlMutex);
        m_running = false;
    }
    m_control.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void MultiRadarCheckerPrivate::addListener(iMultiRadarCheckerListener* listener) {
    unsigned int current;
    {
        net::detail::Lock lock(m_lock);
        if (std::find(m_listeners.begin(), m_listeners.end(), listener) == m_listeners.end())
            m_listeners.push_back(listener);
        current = m_current;
    }
    // Again where the address changed during the call: the one told last must be the one in force.
    for (unsigned int told = 0; current != told; current = currentAddress()) {
        listener->OnLocalIpChanged(current);
        told = current;
    }
}

unsigned int MultiRadarCheckerPrivate::currentAddress() const {
    net::detail::Lock lock(m_lock);
    return m_current;
}

void MultiRadarCheckerPrivate::removeListener(iMultiRadarCheckerListener* listener) {
    if (isCalling()) { // exit in a callback, on the thread that holds the lock: this listener ends
        forget(listener);
        return;
    }
    net::detail::Lock lock(m_lock);
    m_listeners.remove(listener);
}

/// Inside a callback, whose caller has the lock and goes through the list.
void MultiRadarCheckerPrivate::forget(iMultiRadarCheckerListener* listener) NOT_ANALYSED {
    std::ranges::replace(m_listeners, listener, nullptr);
}

void MultiRadarCheckerPrivate::setLocalIP(unsigned int ip) {
    {
        net::detail::Lock lock(m_controlMutex);
        m_configured = ip == INADDR_NONE ? 0 : ip;
    }
    m_control.notify_all();
}

void MultiRadarCheckerPrivate::run() {
    net::detail::Lock control(m_controlMutex);
    while (m_running) {
        const unsigned int configured = m_configured;
        control.unlock();
        TimePoint next = TimePoint::clock::now() + net::detail::timing().addressLook;
        const auto pass = [&] { next = configured == 0 ? continueSearch() : applyConfigured(configured); };
        if (!net::detail::runStep("MultiRadarClient: a search", pass))
            startOver();
        control.lock();
        m_control.wait_until(control, next, [&]() REQUIRES(m_controlMutex) {
            return !m_running || m_configured != configured;
        });
    }
    m_probes.clear();
}

/// Behind a pass that ran out of memory: whatever is found next is told, since nobody knows who was told
/// last.
void MultiRadarCheckerPrivate::startOver() {
    m_probes.clear();
    m_search.configure(0);
}

/// @return when to look again
MultiRadarCheckerPrivate::TimePoint MultiRadarCheckerPrivate::applyConfigured(unsigned int localIp) {
    const bool changed = localIp != m_search.current();
    m_search.configure(localIp);
    m_probes.clear();
    if (changed)
        makeCurrent(localIp);
    repair();
    return TimePoint::clock::now() + net::detail::timing().search.pause;
}

/// @return when there may be something to do again
MultiRadarCheckerPrivate::TimePoint MultiRadarCheckerPrivate::continueSearch() {
    for (const auto& probe : m_probes)
        if (probe->heard())
            m_search.heard(probe->localIp());
    const Phase before = m_search.phase();
    const std::set<unsigned int> addresses = net::localIpSet();
    if (addresses.contains(0) && m_search.current() != 0) // not listed, which is no address that is gone
        return TimePoint::clock::now() + net::detail::timing().addressLook;
    const auto result = m_search.advance(TimePoint::clock::now(), addresses);
    if (m_search.phase() != before)
        enterPhase();
    if (result) {
        std::printf(result->byBeacon ? "Find a varen Radar new ip:%08X old ip:%08X\n"
                                     : "Find a Radar new ip:%x old ip:%x\n",
                    result->addresses.front(), result->previous);
        for (const unsigned int address : result->addresses)
            if (isRunning())
                makeCurrent(address);
    }
    if (m_search.phase() != Phase::Pause)
        return m_search.phaseEnd();
    if (before != Phase::Pause)
        repair();
    return std::min(m_search.phaseEnd(), TimePoint::clock::now() + net::detail::timing().addressLook);
}

void MultiRadarCheckerPrivate::enterPhase() {
    if (m_search.phase() == Phase::Answers) {
        for (const auto& probe : m_probes)
            probe->query();
        return;
    }
    m_probes.clear();
    openProbes();
    m_search.listeningSince(TimePoint::clock::now());
}

/// Opens a probe on every address at the same time, since each may have to wait for a command.
void MultiRadarCheckerPrivate::openProbes() {
    const wire::Group& group = m_search.phase() == Phase::Joining ? wire::kDiscovery : wire::kBeacon;
    const std::vector<unsigned int> addresses(m_search.listening().begin(), m_search.listening().end());
    m_probes.resize(addresses.size());
    std::vector<std::thread> threads(addresses.size());
    const net::detail::ScopeExit joinAll([&] {
        for (std::thread& thread : threads)
            if (thread.joinable())
                thread.join();
        std::erase(m_probes, nullptr);
    });
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const auto make = [&, i] { m_probes[i] = std::make_unique<InterfaceProbe>(group, addresses[i]); };
        const auto open = [make] { net::detail::runStep("MultiRadarClient: a probe", make); };
        if (!net::detail::launchThread(threads[i], "radar-probe", open))
            std::fprintf(stderr, "MultiRadarClient: %s is not searched this time: no thread (%s)\n",
                         net::transAddr(addresses[i]), std::strerror(errno));
    }
}

bool MultiRadarCheckerPrivate::isRunning() const {
    net::detail::Lock lock(m_controlMutex);
    return m_running;
}

void MultiRadarCheckerPrivate::repair() {
    if (isRunning())
        m_repair();
}

void MultiRadarCheckerPrivate::makeCurrent(unsigned int localIp) {
    if (localIp == 0)
        std::puts("ERROR LOGIC HAPPENED!!!");
    net::detail::Lock lock(m_lock);
    m_current = localIp;
    const Call call(*this);
    for (iMultiRadarCheckerListener* listener : m_listeners)
        if (listener != nullptr)
            listener->OnLocalIpChanged(localIp);
    m_listeners.remove(nullptr);
}
