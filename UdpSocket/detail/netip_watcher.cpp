#include <UdpSocket/detail/netip_watcher.h>

#include <UdpSocket/detail/shell_text.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace net {

namespace {

using namespace std::chrono_literals;

constexpr auto kPass = 1s;
constexpr auto kPausedCarrierUp = 5s; // a link that comes up during a restart is left to settle

const char* const kNoAddress = "0.0.0.0";

thread_local const sigset_t* t_applicationSignals = nullptr; // set on watch threads

/// The first address, in ascending order, that stands under the interface name, or "".
std::string addressOf(const std::map<unsigned int, tNetworkInterface>& table, const std::string& name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const auto& entry) { return entry.second.name == name; });
    return found == table.end() ? "" : found->second.ip;
}

} // namespace

std::atomic<bool> tNetIPHelperPrivate::s_netWorkTool = false;
detail::Mutex tNetIPHelperPrivate::s_networkMutex;

tNetIPHelperPrivate::tNetIPHelperPrivate(bool dhcp, std::string ifname, std::string manualIp,
                                         std::string netmask)
    : m_dhcp(dhcp), m_ifname(std::move(ifname)), m_manualIp(std::move(manualIp)),
      m_netmask(std::move(netmask)) {
    pthread_sigmask(SIG_SETMASK, nullptr, &m_applicationSignals);
}

tNetIPHelperPrivate* tNetIPHelperPrivate::start(bool dhcp, std::string ifname, std::string manualIp,
                                                std::string netmask) {
    auto made = std::make_shared<tNetIPHelperPrivate>(dhcp, std::move(ifname), std::move(manualIp),
                                                      std::move(netmask));
    made->m_thread = detail::startThread([watcher = made.get()] { watcher->watch(); });
    detail::Lock lock(s_restartMutex);
    return s_netIPHelperList.emplace_back(std::move(made)).get();
}

void tNetIPHelperPrivate::end() {
    const auto self = shared_from_this();
    m_pause.stop();
    {
        detail::Lock lock(s_restartMutex);
        s_netIPHelperList.remove(self);
    }
    s_networkCond.notify_all();
    m_thread.join();
    detail::Lock lock(m_mutex); // a restart on another thread may be calling the listeners
    m_notified.wait(lock, [this]() REQUIRES(m_mutex) { return m_notifying == 0; });
}

void tNetIPHelperPrivate::AddNetIPListener(iNetIPListener* listener) {
    {
        detail::Lock lock(m_mutex);
        m_listeners.push_back(listener);
    }
    listener->OnNetIPChanged(m_ifname, kNoAddress, false);
}

void tNetIPHelperPrivate::RemoveNetIPListener(iNetIPListener* listener) {
    detail::Lock lock(m_mutex);
    m_listeners.remove(listener);
}

std::string tNetIPHelperPrivate::GetNetIP() const {
    detail::Lock lock(m_mutex);
    return m_currentIp;
}

void tNetIPHelperPrivate::watch() {
    t_applicationSignals = &m_applicationSignals;
    while (m_pause.sleep(kPass)) {
        followCarrier();
        if (m_paused)
            continue;
        if (m_carrier)
            detect();
        else
            settle(kNoAddress, false);
        reportChange();
    }
}

void tNetIPHelperPrivate::followCarrier() {
    const bool carrier = tNetIPHelper::GetNetCarrier(m_ifname);
    if (carrier == m_carrier)
        return;
    m_carrier = carrier;
    print("\r\n---------------carrier state------------------\r\n" + m_ifname + " carrier state changed " +
          (carrier ? "1" : "0") + "\r\n----------------------------------------------\r\n");
    if (!carrier)
        return;
    if (m_paused)
        m_pause.sleep(kPausedCarrierUp);
    else
        NetworkRestart(this);
}

void tNetIPHelperPrivate::detect() {
    detail::Lock lock(s_networkMutex);
    if (m_paused || isGone()) // since this thread began to wait
        return;
    const InterfaceTable table = localNetworkInterfaces();
    if (s_netWorkTool)
        detectWithNmcli(table);
    else
        detectWithIfconfig(table);
}

void tNetIPHelperPrivate::detectWithNmcli(const InterfaceTable& table) {
    const std::string address = addressOf(table, m_ifname);
    if (!address.empty()) {
        settle(address, true);
        if (m_dhcp || address == m_manualIp)
            return;
    }
    configure("nmcli connection modify " + m_ifname + " ipv4.method manual ipv4.addresses " + m_manualIp +
                  "/24",
              {m_manualIp}); // shows on the interface in a later pass
}

void tNetIPHelperPrivate::detectWithIfconfig(const InterfaceTable& table) {
    const std::string address = addressOf(table, m_ifname);
    if (!address.empty() && (m_dhcp || address == m_manualIp)) {
        settle(address, true);
        return;
    }
    settle(m_manualIp, false);
    if (addressOf(table, m_ifname + ":0") != m_manualIp)
        setAlias();
}

void tNetIPHelperPrivate::settle(const std::string& address, bool found) {
    detail::Lock lock(m_mutex);
    m_currentIp = address;
    m_addressFound = found;
}

void tNetIPHelperPrivate::reportChange() {
    std::string address;
    bool found;
    {
        detail::Lock lock(m_mutex);
        if (m_currentIp == m_reportedIp || m_paused || isGone())
            return;
        m_reportedIp = m_currentIp;
        address = m_currentIp;
        found = m_addressFound && m_dhcp && m_carrier;
    }
    tNetIPHelper::PrintLocalNetIP();
    std::string text = s_netWorkTool ? "\r\n-------------------network nmcli----------------------\r\n"
                                     : "\r\n-------------------network ifcfg----------------------\r\n";
    if (!m_carrier)
        text += m_ifname + " unconnected, have no ip " + address;
    else if (found)
        text += m_ifname + " DHCP success " + address;
    else
        text += m_ifname + (m_dhcp ? " DHCP failed, use " : " DHCP closed, use ") + address + " manual IP " +
                m_manualIp;
    print(text + "\r\n------------------------------------------------------\r\n");
    notify(address, found);
}

void tNetIPHelperPrivate::notify(const std::string& address, bool dhcpAddress) {
    std::list<iNetIPListener*> listeners;
    {
        detail::Lock lock(m_mutex);
        if (isGone())
            return;
        ++m_notifying;
        listeners = m_listeners;
    }
    for (iNetIPListener* listener : listeners)
        listener->OnNetIPChanged(m_ifname, address, dhcpAddress);
    detail::Lock lock(m_mutex);
    --m_notifying;
    m_notified.notify_all();
}

void tNetIPHelperPrivate::configure(const std::string& command,
                                    std::initializer_list<std::string> addresses) const {
    if (!isGone() && detail::isInterfaceName(m_ifname) &&
        std::all_of(addresses.begin(), addresses.end(), &detail::isDottedQuad))
        run(command);
}

void tNetIPHelperPrivate::setAlias() const {
    configure("ifconfig " + m_ifname + ":0 " + m_manualIp + " netmask " + m_netmask, {m_manualIp, m_netmask});
}

void tNetIPHelperPrivate::run(const std::string& command) {
    sigset_t before;
    if (t_applicationSignals != nullptr)
        pthread_sigmask(SIG_SETMASK, t_applicationSignals, &before);
    tNetIPHelper::SystemCmd(command, true);
    if (t_applicationSignals != nullptr)
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void tNetIPHelperPrivate::print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout); // commands write to the same place on their own
}

} // namespace net
