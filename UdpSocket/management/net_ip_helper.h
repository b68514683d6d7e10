/// @file
/// The implementation behind net::tNetIPHelper: the watch of one interface (net_ip_helper.cpp) and the
/// restart of the network, which concerns all of them (network_restart.cpp).
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <csignal>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace net {

/// One watched interface. Shared: a restart keeps every instance that it works on, also one whose handle is
/// destroyed meanwhile; such an instance is "gone" and gets no further command or callback.
class tNetIPHelperPrivate : public std::enable_shared_from_this<tNetIPHelperPrivate>,
                            public detail::ProcessBound {
public:
    tNetIPHelperPrivate(bool dhcp, std::string ifname, std::string manualIp, std::string netmask);

    /// A new instance with its thread, in the list of all; end() is due.
    static tNetIPHelperPrivate* start(bool dhcp, std::string ifname, std::string manualIp,
                                      std::string netmask);
    /// Takes the instance out of the list and ends its thread. The instance is not to be used afterwards.
    void end();
    /// Leaves the instance as it is, inside a callback that exits: other threads call its listeners no more.
    void fallSilent() { m_pause.stop(); }
    bool isGone() const { return m_pause.stopped(); }

    void AddNetIPListener(iNetIPListener* listener);
    void RemoveNetIPListener(iNetIPListener* listener);
    std::string GetNetIP() const;

    static void SetResetReady(bool ready);
    static void NetResetCmd(std::string cmd);

    /// @param starter the instance on whose watch thread this runs; the restart is given up when it is gone.
    ///                Null on an application's thread
    static void NetworkRestart(const tNetIPHelperPrivate* starter);

    static void SetNetworkToolType(bool nmcli);

private:
    class Restart;
    struct Shared;
    static Shared& shared();
    using InterfaceTable = std::map<unsigned int, tNetworkInterface>;

    void watch();
    void pass();
    void followCarrier(bool carrier);
    /// Waits for its turn, and does nothing when the instance is paused or gone by then.
    void detect();
    void detectWithNmcli(const InterfaceTable& table);
    void detectWithIfconfig(const InterfaceTable& table);
    void reportChange();
    void notify(const std::string& address, bool dhcpAddress);

    /// Takes the interface's configuration away.
    void unconfigure();
    /// Configures the interface again.
    void NetworkReset();
    /// Forgets the address, so that the next one is reported in any case, and ends the pause.
    void startOver();
    void settle(const std::string& address, bool found);

    /// Runs a command that names the interface. Nothing runs when the instance is gone, or when the name or
    /// one of @p addresses is not plain: the command counts as failed.
    void configure(const std::string& command, std::initializer_list<std::string> addresses = {}) const;
    void setAlias() const;
    /// Runs a command with the signals blocked that the application blocked, not all as on library threads:
    /// what a command leaves running (udhcpc) must end when it is told to.
    static void run(const std::string& command);
    static void print(const std::string& text);

    const bool m_dhcp;
    const std::string m_ifname;
    const std::string m_manualIp;
    const std::string m_netmask;
    sigset_t m_applicationSignals; // blocked by the thread that made the instance

    bool m_carrier = false;      // used on the watch thread only
    bool m_restartIsDue = false; // since the carrier came up; used on the watch thread only
    std::atomic<bool> m_paused = false;
    std::atomic<bool> m_unconfigured =
        false; // by a restart, which may be given up before it configures again
    detail::Pause m_pause;
    std::thread m_thread;

    mutable detail::Mutex m_mutex;
    std::list<iNetIPListener*> m_listeners GUARDED_BY(m_mutex);
    std::string m_currentIp GUARDED_BY(m_mutex) = "0.0.0.0";
    std::string m_reportedIp GUARDED_BY(m_mutex); // empty: the next address is reported, whatever it is
    bool m_addressFound GUARDED_BY(m_mutex) = false;
    int m_notifying GUARDED_BY(m_mutex) = 0; // rounds of calls to the listeners under way
    detail::Condition m_notified;
};

/// What all instances of a process share.
struct tNetIPHelperPrivate::Shared : detail::ProcessBound {
    Shared() = default;
    /// In a child made by fork, which takes over the settings and nothing else.
    explicit Shared(const Shared* parents) NOT_ANALYSED;

    std::atomic<bool> nmcli = false; // the tool; false: ifconfig and udhcpc

    detail::Mutex mutex;       // never held while a command or listener runs, or anything is printed
    detail::Condition changed; // what is guarded below, or an instance is gone
    std::list<std::shared_ptr<tNetIPHelperPrivate>> instances GUARDED_BY(mutex);
    bool detecting GUARDED_BY(mutex) = false; // a watch detects addresses, the command that follows included
    bool resetReady GUARDED_BY(mutex) = true;
    bool restarting GUARDED_BY(mutex) = false;
    std::string restartCommand GUARDED_BY(mutex) = "service network-manager restart";
};

} // namespace net
