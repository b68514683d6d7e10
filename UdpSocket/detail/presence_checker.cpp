#include <UdpSocket/detail/presence_checker.h>

#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/detail/profile.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/detail/wire.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr auto kCycle = 5s;
constexpr auto kBeaconTime = 3s; // listening for beacons, twice
constexpr auto kSettleTime = 1s; // between joining the group and the query
constexpr auto kAnswerTime = 2s;
constexpr auto kAddressLook = 1s; // how soon a change of the local addresses is noticed

unsigned int interfaceAddress(const std::string& netName) {
    for (const auto& [address, interface] : net::localNetworkInterfaces())
        if (interface.name.find(netName) != std::string::npos)
            return address;
    return 0;
}

} // namespace

void MultiRadarCheckHelper::OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data,
                                                   int len) {
    const std::string_view message(data, static_cast<std::size_t>(len));
    if (message.size() == wire::kShortAnnouncement.length ||
        message.size() == wire::kLongAnnouncement.length || message == wire::kBeaconMarker)
        m_heard = true;
}

MultiRadarCheckerPrivate::MultiRadarCheckerPrivate(iMultiRadarCheckerListener* owner,
                                                   std::function<void()> mend)
    : m_listeners{owner}, m_mend(std::move(mend)) {
    const std::string netName = net::detail::profileText("Local", "NetName", "", 64);
    const std::string ip = net::detail::profileText("Local", "IP", "0.0.0.0", 16);
    m_configured = net::detail::profileAddress("Local", "IP", ip);
    if (m_configured == 0 && !netName.empty())
        m_configured = interfaceAddress(netName);
    std::printf("LocalIP (%s): %s\n", netName.c_str(), ip.c_str());
    m_thread = net::detail::startThread([this] { run(); });
}

MultiRadarCheckerPrivate::~MultiRadarCheckerPrivate() {
    {
        net::detail::Lock lock(m_controlMutex);
        m_running = false;
    }
    m_control.notify_all();
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
    net::detail::Lock lock(m_lock);
    m_listeners.remove(listener);
}

void MultiRadarCheckerPrivate::setLocalIP(unsigned int ip) {
    {
        net::detail::Lock lock(m_controlMutex);
        m_configured = ip;
    }
    m_control.notify_all();
}

/// False when the search at hand is no longer wanted.
bool MultiRadarCheckerPrivate::searching() const {
    net::detail::Lock lock(m_controlMutex);
    return m_running && m_configured == 0;
}

/// Waits, with the control lock but for the waiting itself, until @p done or the duration is over or the
/// machine has other addresses than those of the search at hand.
template <class Done>
void MultiRadarCheckerPrivate::pause(net::detail::Lock& control, std::chrono::seconds duration, Done done) {
    const auto end = std::chrono::steady_clock::now() + duration;
    for (;;) {
        const auto now = std::chrono::steady_clock::now();
        const bool ended = m_control.wait_until(control, std::min(end, now + kAddressLook), done);
        if (ended || std::chrono::steady_clock::now() >= end || net::localIpSet() != m_addresses)
            return;
    }
}

bool MultiRadarCheckerPrivate::sleepWhileSearching(std::chrono::seconds duration) {
    const auto givenUp = [this]() REQUIRES(m_controlMutex) { return !m_running || m_configured != 0; };
    const auto end = std::chrono::steady_clock::now() + duration;
    net::detail::Lock lock(m_controlMutex);
    pause(lock, duration, givenUp);
    return !givenUp() && std::chrono::steady_clock::now() >= end;
}

void MultiRadarCheckerPrivate::run() {
    net::detail::Lock control(m_controlMutex);
    while (m_running) {
        const unsigned int address = m_configured;
        control.unlock();
        if (address == 0)
            check();
        else if (address != currentAddress())
            makeCurrent(address);
        m_mend();
        control.lock();
        const auto changed = [&]() REQUIRES(m_controlMutex) { return !m_running || m_configured != address; };
        if (address == 0)
            pause(control, kCycle, changed);
        else
            m_control.wait_for(control, kCycle, changed);
    }
}

void MultiRadarCheckerPrivate::check() {
    const std::set<unsigned int> addresses = net::localIpSet();
    {
        net::detail::Lock lock(m_controlMutex);
        m_addresses = addresses;
    }
    std::set<unsigned int> heard = probeAll(addresses, &MultiRadarCheckerPrivate::hearsBeacon);
    if (!searching() || isConfirmed(heard))
        return;
    if (!heard.empty()) {
        std::printf("Find a varen Radar new ip:%08X old ip:%08X\n", *heard.begin(), currentAddress());
        settle(heard);
        return;
    }
    heard = probeAll(addresses, &MultiRadarCheckerPrivate::hearsAnswer);
    if (!searching() || isConfirmed(heard))
        return;
    if (heard.empty()) {
        m_found = false;
        return;
    }
    std::printf("Find a Radar new ip:%x old ip:%x\n", *heard.begin(), currentAddress());
    settle(heard);
}

std::set<unsigned int> MultiRadarCheckerPrivate::probeAll(const std::set<unsigned int>& addresses,
                                                          Probe probe) {
    net::detail::Mutex mutex; // guards heard
    std::set<unsigned int> heard;
    std::vector<std::thread> probes;
    for (const unsigned int address : addresses) {
        const auto probeOne = [&, address] {
            if (!(this->*probe)(address))
                return;
            net::detail::Lock lock(mutex);
            heard.insert(address);
        };
        if (!net::detail::launchThread(probes.emplace_back(), probeOne)) {
            std::fprintf(stderr, "MultiRadarClient: %s is not searched this time: no thread (%s)\n",
                         net::transAddr(address), std::strerror(errno));
            probes.pop_back();
        }
    }
    for (std::thread& thread : probes)
        thread.join();
    return heard;
}

bool MultiRadarCheckerPrivate::hearsBeacon(unsigned int localIp) {
    for (int period = 0; period < 2; ++period) {
        MultiRadarCheckHelper helper;
        const auto receiver = net::detail::makeReceiver(&helper, wire::kBeacon, localIp);
        if (!sleepWhileSearching(kBeaconTime) || !helper.heard())
            return false;
    }
    return true;
}

bool MultiRadarCheckerPrivate::hearsAnswer(unsigned int localIp) {
    MultiRadarCheckHelper helper;
    const auto receiver = net::detail::makeReceiver(&helper, wire::kDiscovery, localIp);
    if (!sleepWhileSearching(kSettleTime))
        return false;
    const auto sender = net::detail::makeSender(wire::kDiscovery, localIp);
    net::detail::send(*sender, wire::kQuery);
    return sleepWhileSearching(kAnswerTime) && helper.heard();
}

bool MultiRadarCheckerPrivate::isConfirmed(const std::set<unsigned int>& heard) const {
    return m_found && heard.count(currentAddress()) != 0;
}

void MultiRadarCheckerPrivate::settle(const std::set<unsigned int>& heard) {
    m_found = true;
    for (const unsigned int address : heard)
        makeCurrent(address);
}

void MultiRadarCheckerPrivate::makeCurrent(unsigned int localIp) {
    net::detail::Lock lock(m_lock);
    m_current = localIp;
    if (localIp == 0)
        std::puts("ERROR LOGIC HAPPENED!!!");
    for (iMultiRadarCheckerListener* listener : m_listeners)
        listener->OnLocalIpChanged(localIp);
}
