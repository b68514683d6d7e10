#include <UdpSocket/management/net_ip_helper.h>

#include <vector>

namespace net {

namespace {

// The names that NetworkManager gives to the profiles it makes by itself, in English and Chinese.
constexpr const char* kDefaultProfiles[] = {
    "Wired\\ connection\\ 0", "Wired\\ connection\\ 1", "Wired\\ connection\\ 2",
    "有线连接\\ 0",           "有线连接\\ 1",           "有线连接\\ 2",
};

} // namespace

void tNetIPHelperPrivate::SetNetworkToolType(bool nmcli) {
    shared().nmcli = nmcli;
}

void tNetIPHelperPrivate::SetResetReady(bool ready) {
    Shared& all = shared();
    {
        detail::Lock lock(all.mutex);
        all.resetReady = ready;
    }
    all.changed.notify_all();
}

void tNetIPHelperPrivate::NetResetCmd(std::string cmd) {
    Shared& all = shared();
    detail::Lock lock(all.mutex);
    all.restartCommand = std::move(cmd);
}

/// One restart: waits for its turn, works on the instances that stand in the list then, and in the end, also
/// when it is given up, lets every instance go on that it has paused. One that it has left without
/// configuration gets it in its watch's next look.
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
    Shared& all = shared();
    detail::Lock lock(all.mutex);
    all.changed.wait(lock, [&]() REQUIRES(all.mutex) { return !all.restarting || givenUp(); });
    if (givenUp())
        return;
    m_instances.assign(all.instances.begin(), all.instances.end());
    all.restarting = m_begun = true;
}

tNetIPHelperPrivate::Restart::~Restart() {
    if (!m_begun)
        return;
    for (const auto& instance : m_instances)
        if (instance->m_paused)
            instance->startOver();
    Shared& all = shared();
    {
        detail::Lock lock(all.mutex);
        all.restarting = false;
    }
    all.changed.notify_all();
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
        instance->unconfigure();
    }
    if (shared().nmcli)
        restartService();
    else
        print("Ifconfig Mode ...\r\n");
    for (const auto& instance : m_instances) {
        if (givenUp())
            return;
        instance->NetworkReset();
        instance->startOver();
    }
    print("\r\n------------------------------network restart over--------------------------\r\n");
}

void tNetIPHelperPrivate::Restart::pause(tNetIPHelperPrivate& instance) {
    if (givenUp() || instance.isGone())
        return;
    instance.m_paused = true;
    instance.notify("0.0.0.0", false);
    print("\r\nN++++++++ " + instance.m_ifname + " network reset mutex wait\r\n");
    Shared& all = shared();
    {
        detail::Lock lock(all.mutex);
        all.changed.wait(lock, [&]() REQUIRES(all.mutex) {
            return (all.resetReady && !all.detecting) || instance.isGone() || givenUp();
        });
    }
    if (givenUp() || instance.isGone())
        return;
    print("\r\nN++++++++ " + instance.m_ifname + " network reset mutex free\r\n");
}

void tNetIPHelperPrivate::Restart::restartService() {
    for (const char* profile : kDefaultProfiles) {
        if (givenUp())
            return;
        run(std::string("nmcli connection delete ") + profile);
    }
    Shared& all = shared();
    std::string command;
    {
        detail::Lock lock(all.mutex);
        command = all.restartCommand;
    }
    if (!givenUp())
        run(command);
}

void tNetIPHelperPrivate::NetworkRestart(const tNetIPHelperPrivate* starter) {
    Restart(starter).work();
}

void tNetIPHelperPrivate::unconfigure() {
    m_unconfigured = true;
    configure("ifconfig " + m_ifname + ":0 down");
    configure("nmcli connection delete " + m_ifname);
}

void tNetIPHelperPrivate::NetworkReset() {
    const std::string addProfile =
        "nmcli connection add con-name " + m_ifname + " type ethernet ifname " + m_ifname;
    const bool nmcli = shared().nmcli;
    if (m_dhcp)
        configure(addProfile + " ipv4.method auto autoconnect yes");
    else if (nmcli)
        configure(addProfile + " ipv4.method manual ipv4.addresses " + m_manualIp + "/24", {m_manualIp});
    if (!nmcli && m_dhcp)
        configure("udhcpc -i " + m_ifname + " -n");
    if (!nmcli)
        setAlias();
    m_unconfigured = false;
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
