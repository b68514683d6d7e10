/// @file
/// The local address that leads to the radars.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/interface_search.h>
#include <UdpSocket/udpsocket.h>

#include <functional>
#include <list>
#include <memory>
#include <thread>
#include <vector>

class InterfaceProbe;

/// Settles the local address and tells its listeners: the configured one, or else the one found by
/// protocol::InterfaceSearch.
///
/// Threads: one checker thread from construction to stop(), which alone drives the search, and while a phase
/// of a search opens its sockets one thread for each local address, which the checker thread joins.
class MultiRadarCheckerPrivate : public net::detail::ProcessBound {
public:
    /// Reads "Local"/"NetName" and "Local"/"IP" of profile.ini and starts.
    /// @param owner  the first listener; its OnLocalIpChanged may come before this constructor returns
    /// @param repair called on the checker thread behind every search, and every cycle with a configured
    ///               address, without a lock
    MultiRadarCheckerPrivate(iMultiRadarCheckerListener* owner, std::function<void()> repair);
    ~MultiRadarCheckerPrivate();

    void addListener(iMultiRadarCheckerListener* listener);
    void removeListener(iMultiRadarCheckerListener* listener);
    void setLocalIP(unsigned int ip);
    /// Ends the thread; a callback in progress is waited for, all else is cut short.
    void stop();

private:
    using TimePoint = protocol::InterfaceSearch::TimePoint;

    void run();
    TimePoint applyConfigured(unsigned int localIp);
    TimePoint continueSearch();
    void startOver();
    void enterPhase();
    void openProbes();
    void makeCurrent(unsigned int localIp);
    void forget(iMultiRadarCheckerListener* listener);
    void repair();
    bool isRunning() const;
    unsigned int currentAddress() const;

    mutable net::detail::Mutex m_lock; // held while listeners are called
    std::list<iMultiRadarCheckerListener*> m_listeners GUARDED_BY(m_lock);
    unsigned int m_current GUARDED_BY(m_lock) = 0; // the address last told to the listeners, network order
    const std::function<void()> m_repair;

    protocol::InterfaceSearch m_search; // this and the probes: checker thread only
    std::vector<std::unique_ptr<InterfaceProbe>> m_probes;

    mutable net::detail::Mutex m_controlMutex;
    net::detail::Condition m_control; // m_running or m_configured has changed
    bool m_running GUARDED_BY(m_controlMutex) = true;
    unsigned int m_configured GUARDED_BY(m_controlMutex) = 0; // network order, 0 = search
    std::thread m_thread;
};
