#include <UdpSocket/management/net_ip_helper.h>

#include <UdpSocket/base/command.h>
#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/scope_exit.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/transport/interfaces.h>

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

namespace net {

namespace {

const char* const kNoAddress = "0.0.0.0";

/// Set on watch threads. Of the static block, as in process.cpp.
[[gnu::tls_model("initial-exec")]] thread_local const sigset_t* t_applicationSignals = nullptr;

/// The first address, in ascending order, that stands under the interface name, or "".
std::string addressOf(const std::map<unsigned int, tNetworkInterface>& table, const std::string& name) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const auto& entry) { return entry.second.name == name; });
    return found == table.end() ? "" : found->second.ip;
}

bool isOne(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    int number = 0;
    return std::from_chars(line.data(), line.data() + line.size(), number).ec == std::errc() && number == 1;
}

/// An interface's carrier, false where its file cannot be read; nothing (errno) while the system has no
/// descriptor or memory for a look.
std::optional<bool> readCarrier(const std::string& ifname) {
    const std::string path = "/sys/class/net/" + ifname + "/carrier";
    const detail::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> contents; // files there are no longer than a page
    const ssize_t length = file.isOpen() ? ::read(file.get(), contents.data(), contents.size()) : -1;
    if (length < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM))
        return std::nullopt;
    std::string_view lines(contents.data(), length > 0 ? static_cast<size_t>(length) : 0);
    if (lines.ends_with('\n'))
        lines.remove_suffix(1);
    return isOne(lines.substr(lines.rfind('\n') + 1));
}

} // namespace

// Nobody changes what was its parent's in a child.
tNetIPHelperPrivate::Shared::Shared(const Shared* parents)
    : nmcli(parents->nmcli.load()), resetReady(parents->resetReady), restartCommand(parents->restartCommand) {
}

tNetIPHelperPrivate::Shared& tNetIPHelperPrivate::shared() {
    // Never destroyed: watches and restarts run until the process is gone.
    static std::atomic<Shared*> s_all = new Shared;
    Shared* all = s_all;
    while (!all->inOwnProcess()) {
        auto own = std::make_unique<Shared>(all);
        if (s_all.compare_exchange_strong(all, own.get()))
            return *own.release();
    }
    return *all;
}

tNetIPHelperPrivate::tNetIPHelperPrivate(bool dhcp, std::string ifname, std::string manualIp,
                                         std::string netmask)
    : m_dhcp(dhcp), m_ifname(std::move(ifname)), m_manualIp(std::move(manualIp)),
      m_netmask(std::move(netmask)) {
    pthread_sigmask(SIG_SETMASK, nullptr, &m_applicationSignals);
}

tNetIPHelperPrivate* tNetIPHelperPrivate::start(bool dhcp, std::string ifname, std::string manualIp,
                                                std::string netmask) {
    const auto made = std::make_shared<tNetIPHelperPrivate>(dhcp, std::move(ifname), std::move(manualIp),
                                                            std::move(netmask));
    std::list entry{made}; // before the thread: nothing may fail once it runs
    Shared& all = shared();
    made->m_thread = detail::startThread("radar-watch", [watcher = made.get()] { watcher->watch(); });
    detail::Lock lock(all.mutex);
    all.instances.splice(all.instances.end(), entry);
    return made.get();
}

void tNetIPHelperPrivate::end() {
    const auto self = shared_from_this();
    m_pause.stop();
    Shared& all = shared();
    {
        detail::Lock lock(all.mutex);
        all.instances.remove(self);
    }
    all.changed.notify_all();
    m_thread.join();
    detail::Lock lock(m_mutex); // a restart on another thread may be calling the listeners
    m_notified.wait(lock, [this]() REQUIRES(m_mutex) { return m_notifying == 0; });
}

void tNetIPHelperPrivate::AddNetIPListener(iNetIPListener* listener) {
    {
        detail::Lock lock(m_mutex);
        m_listeners.push_back(listener);
    }
    bool told = false;
    const detail::ScopeExit takeBack([&] {
        if (told)
            return;
        detail::Lock lock(m_mutex);
        const auto added = std::find(m_listeners.rbegin(), m_listeners.rend(), listener);
        if (added != m_listeners.rend()) // it may have removed itself
            m_listeners.erase(std::next(added).base());
    });
    listener->OnNetIPChanged(m_ifname, kNoAddress, false);
    told = true;
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
    while (m_pause.sleep(detail::timing().watchPass))
        detail::runStep("tNetIPHelper: a pass of the watch", [this] { pass(); });
}

void tNetIPHelperPrivate::pass() {
    const std::optional<bool> carrier = readCarrier(m_ifname);
    if (!carrier) { // which is no cable that was pulled
        std::fprintf(stderr, "tNetIPHelper: a pass of the watch was lost: %s\n", std::strerror(errno));
        return;
    }
    followCarrier(*carrier);
    if (m_paused)
        return;
    if (m_carrier)
        detect();
    else
        settle(kNoAddress, false);
    reportChange();
}

void tNetIPHelperPrivate::followCarrier(bool carrier) {
    if (carrier != m_carrier) {
        print("\r\n---------------carrier state------------------\r\n" + m_ifname +
              " carrier state changed " + (carrier ? "1" : "0") +
              "\r\n----------------------------------------------\r\n");
        m_carrier = m_restartIsDue = carrier;
    }
    if (!m_restartIsDue)
        return;
    if (m_paused)
        m_pause.sleep(detail::timing().restartCarrier);
    else {
        const Call call(*this); // which tells the listeners of all instances
        NetworkRestart(this);
    }
    m_restartIsDue = false; // not before: the next pass makes good one that memory ran out for
}

void tNetIPHelperPrivate::detect() {
    Shared& all = shared();
    {
        detail::Lock lock(all.mutex);
        all.changed.wait(lock, [&]() REQUIRES(all.mutex) { return !all.detecting || isGone(); });
        if (m_paused || isGone())
            return;
        all.detecting = true;
    }
    const detail::ScopeExit endOfTurn([&all] {
        {
            detail::Lock lock(all.mutex);
            all.detecting = false;
        }
        all.changed.notify_all();
    });
    if (m_unconfigured) {
        NetworkReset();
        return; // what it has asked for shows in a later pass
    }
    const std::optional<InterfaceTable> table = detail::listInterfaces();
    if (!table)
        return; // which is no address that is gone
    if (all.nmcli)
        detectWithNmcli(*table);
    else
        detectWithIfconfig(*table);
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
    bool told = false;
    const detail::ScopeExit tellAgain([&] { // in the next pass, where memory ran out in this one
        if (told)
            return;
        detail::Lock lock(m_mutex);
        m_reportedIp.clear();
    });
    tNetIPHelper::PrintLocalNetIP();
    std::string text = shared().nmcli ? "\r\n-------------------network nmcli----------------------\r\n"
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
    told = true;
}

void tNetIPHelperPrivate::notify(const std::string& address, bool dhcpAddress) {
    std::list<iNetIPListener*> listeners;
    {
        detail::Lock lock(m_mutex);
        if (isGone())
            return;
        listeners = m_listeners;
        ++m_notifying;
    }
    const detail::ScopeExit endOfRound([this] {
        detail::Lock lock(m_mutex);
        --m_notifying;
        m_notified.notify_all();
    });
    const Call call(*this);
    for (iNetIPListener* listener : listeners)
        listener->OnNetIPChanged(m_ifname, address, dhcpAddress);
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
    pthread_sigmask(SIG_SETMASK, t_applicationSignals, &before); // null leaves the mask as it is
    const detail::ScopeExit restore([&before] { pthread_sigmask(SIG_SETMASK, &before, nullptr); });
    tNetIPHelper::SystemCmd(command, true);
}

void tNetIPHelperPrivate::print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout); // commands write to the same place on their own
}

tNetIPHelper::tNetIPHelper(bool dhcp, std::string ifname, std::string manualIp, std::string netmask)
    : d(tNetIPHelperPrivate::start(dhcp, std::move(ifname), std::move(manualIp), std::move(netmask))) {}
tNetIPHelper::~tNetIPHelper() {
    if (!d->inOwnProcess()) // see destroy()
        return;
    if (d->isCalling())
        d->fallSilent();
    else
        d->end();
}
void tNetIPHelper::AddNetIPListener(iNetIPListener* listener) {
    d->AddNetIPListener(listener);
}
void tNetIPHelper::RemoveNetIPListener(iNetIPListener* listener) {
    d->RemoveNetIPListener(listener);
}
std::string tNetIPHelper::GetNetIP() const {
    return d->GetNetIP();
}
void tNetIPHelper::SetNetworkToolType(bool nmcli) {
    tNetIPHelperPrivate::SetNetworkToolType(nmcli);
}
void tNetIPHelper::SetResetReady(bool ready) {
    tNetIPHelperPrivate::SetResetReady(ready);
}
void tNetIPHelper::NetResetCmd(std::string cmd) {
    tNetIPHelperPrivate::NetResetCmd(std::move(cmd));
}
void tNetIPHelper::NetworkRestart() {
    tNetIPHelperPrivate::NetworkRestart(nullptr);
}

void tNetIPHelper::PrintLocalNetIP() {
    std::string text = "\r\n----------------------------------------------\r\nLocal Net IP: \r\n";
    for (const auto& [address, interface] : localNetworkInterfaces())
        text += interface.name + " : " + interface.ip + "\r\n";
    text += "----------------------------------------------\r\n";
    std::fputs(text.c_str(), stdout);
}

bool tNetIPHelper::GetNetCarrier(std::string ifname) {
    return readCarrier(ifname).value_or(false);
}

bool tNetIPHelper::SystemCmd(std::string cmd, bool show) {
    return detail::runCommand(cmd, show);
}

} // namespace net
