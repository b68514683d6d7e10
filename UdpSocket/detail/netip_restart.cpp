#include <UdpSocket/detail/netip_watcher.h>

#include <vector>

namespace net {

namespace {

// The names that NetworkManager gives to the profiles it makes by itself, in English and Chinese.
constexpr const char* kDefaultProfiles[] = {
    "Wired\\ connection\\ 0", "Wired\\ connection\\ 1", "Wired\\ connection\\ 2",
    "有线连接\\ 0",           "有线连接\\ 1",           "有线连接\\ 2",
};

} // namespace

detail::Mutex tNetIPHelperPrivate::s_restartMutex;
std::list<std::shared_ptr<tNetIPHelperPrivate>> tNetIPHelperPrivate::s_netIPHelperList;
bool tNetIPHelperPrivate::s_resetReady = true;
bool tNetIPHelperPrivate::s_restarting = false;
std::string tNetIPHelperPrivate::s_netRestartCmd = "service network-manager restart";
detail::Condition tNetIPHelperPrivate::s_networkCond;

void tNetIPHelperPrivate::SetResetReady(bool ready) {
    {
        detail::Lock lock(s_restartMutex);
        s_resetReady = ready;
    }
    s_networkCond.notify_all();
}

void tNetIPHelperPrivate::NetResetCmd(std::string cmd) {
    detail::Lock lock(s_restartMutex);
    s_netRestartCmd = std::move(cmd);
}

/// One restart: waits for its turn, works on the instances that stand in the list then, and in the end, also
/// when it is given up, lets every instance go on that it has paused.
class tNetIPHelperPrivate::Restart {
public:
    explicit Restart(const tNetIPHelperPrivate* starter);
    ~Restart();
    Restart(const Restart&) = delete;
    Restart& operator=(const Restart&) = delete;

    void work();

private:
    bool givenUp() const { return m_starter != nullptr && m_starter->isGone(); }
    void pause(tNetIPHelperPrivate& instance);
    void restartService();

    const tNetIPHelperPrivate* const m_starter;
    bool m_begun = false;
    std::vector<std::shared_ptr<tNetIPHelperPrivate>> m_instances;
};

tNetIPHelperPrivate::Restart::Restart(const tNetIPHelperPrivate* starter) : m_starter(starter) {
    detail::Lock lock(s_restartMutex);
    s_networkCond.wait(lock, [this]() REQUIRES(s_restartMutex) { return !s_restarting || givenUp(); });
    if (givenUp())
        return;
    s_restarting = m_begun = true;
    m_instances.assign(s_netIPHelperList.begin(), s_netIPHelperList.end());
}

tNetIPHelperPrivate::Restart::~Restart() {
    if (!m_begun)
        return;
    for (const auto& instance : m_instances)
        if (instance->m_paused)
            instance->startOver();
    {
        detail::Lock lock(s_restartMutex);
        s_restarting = false;
    }
    s_networkCond.notify_all();
}

void tNetIPHelperPrivate::Restart::work() {
    if (!m_begun)
        return;
    print("\r\n------------------------------network restart-------------------------------\r\n");
    for (const auto& instance : m_instances)
        pause(*instance);
    for (const auto& instance : m_instances) {
        if (givenUp())
            return;
        instance->configure("ifconfig " + instance->m_ifname + ":0 down");
        instance->configure("nmcli connection delete " + instance->m_ifname);
    }
    if (s_netWorkTool)
        restartService();
    else
        print("Ifconfig Mode ...\r\n");
    for (const auto& instance : m_instances) {
        if (givenUp())
            return;
        instance->NetworkReset();
    }
    print("\r\n------------------------------network restart over--------------------------\r\n");
}

void tNetIPHelperPrivate::Restart::pause(tNetIPHelperPrivate& instance) {
    if (givenUp() || instance.isGone())
        return;
    instance.m_paused = true;
    instance.notify("0.0.0.0", false);
    print("\r\nN++++++++ " + instance.m_ifname + " network reset mutex wait\r\n");
    {
        detail::Lock lock(s_restartMutex);
        s_networkCond.wait(
            lock, [&]() REQUIRES(s_restartMutex) { return s_resetReady || instance.isGone() || givenUp(); });
    }
    if (givenUp() || instance.isGone())
        return;
    { detail::Lock lock(s_networkMutex); } // a detection that is under way ends first
    print("\r\nN++++++++ " + instance.m_ifname + " network reset mutex free\r\n");
}

void tNetIPHelperPrivate::Restart::restartService() {
    for (const char* profile : kDefaultProfiles) {
        if (givenUp())
            return;
        run(std::string("nmcli connection delete ") + profile);
    }
    std::string command;
    {
        detail::Lock lock(s_restartMutex);
        command = s_netRestartCmd;
    }
    if (!givenUp())
        run(command);
}

void tNetIPHelperPrivate::NetworkRestart(const tNetIPHelperPrivate* starter) {
    Restart(starter).work();
}

void tNetIPHelperPrivate::NetworkReset() {
    const std::string addProfile =
        "nmcli connection add con-name " + m_ifname + " type ethernet ifname " + m_ifname;
    const bool nmcli = s_netWorkTool;
    if (m_dhcp)
        configure(addProfile + " ipv4.method auto autoconnect yes");
    else if (nmcli)
        configure(addProfile + " ipv4.method manual ipv4.addresses " + m_manualIp + "/24", {m_manualIp});
    if (!nmcli && m_dhcp)
        configure("udhcpc -i " + m_ifname + " -n");
    if (!nmcli)
        setAlias();
    startOver();
}

void tNetIPHelperPrivate::startOver() {
    {
        detail::Lock lock(m_mutex);
        m_addressFound = false;
        m_currentIp = "0.0.0.0";
        m_reportedIp.clear();
    }
    m_paused = false;
}

} // namespace net
