/// @file
/// Which local address leads to the radars.
#pragma once

#include <UdpSocket/detail/mutex.h>

#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <set>
#include <thread>

/// Hears on one local address whether a radar is there.
class MultiRadarCheckHelper : public net::iUdpDataListener {
public:
    /// Called on the thread of the probe's receiver.
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int len) override;
    virtual ~MultiRadarCheckHelper() = default;

    bool heard() const { return m_heard; }

private:
    std::atomic<bool> m_heard = false;
};

/// Settles the local address and tells its listeners: the configured one, or else the one found by a search
/// over all local addresses, repeated every 5 seconds.
///
/// A search begins anew when the local addresses change, so that one that comes late, or takes the place of
/// another, is not missed for a whole cycle.
///
/// Threads: one checker thread from construction to destruction, and during a search one probe thread for
/// each local address, which the checker thread joins. Destruction and setLocalIP cut every pause short.
class MultiRadarCheckerPrivate {
public:
    /// Reads "Local"/"NetName" and "Local"/"IP" of profile.ini and starts.
    /// @param owner the first listener; its OnLocalIpChanged may come before this constructor returns
    /// @param mend  called on the checker thread every cycle, without a lock
    MultiRadarCheckerPrivate(iMultiRadarCheckerListener* owner, std::function<void()> mend);
    ~MultiRadarCheckerPrivate();

    void addListener(iMultiRadarCheckerListener* listener);
    void removeListener(iMultiRadarCheckerListener* listener);
    void setLocalIP(unsigned int ip);

private:
    using Probe = bool (MultiRadarCheckerPrivate::*)(unsigned int);

    void run();
    void check();
    std::set<unsigned int> probeAll(const std::set<unsigned int>& addresses, Probe probe);
    bool hearsBeacon(unsigned int localIp);
    bool hearsAnswer(unsigned int localIp);
    bool isConfirmed(const std::set<unsigned int>& heard) const;
    void settle(const std::set<unsigned int>& heard);
    void makeCurrent(unsigned int localIp);

    unsigned int currentAddress() const;
    bool searching() const;
    bool sleepWhileSearching(std::chrono::seconds duration);
    template <class Done>
    void pause(net::detail::Lock& control, std::chrono::seconds duration, Done done) REQUIRES(m_controlMutex);

    mutable net::detail::Mutex m_lock; // held while listeners are called
    std::list<iMultiRadarCheckerListener*> m_listeners GUARDED_BY(m_lock);
    unsigned int m_current GUARDED_BY(m_lock) = 0; // the address last told to the listeners, network order
    bool m_found = false; // a radar was heard on it in the last search; checker thread only
    const std::function<void()> m_mend;

    mutable net::detail::Mutex m_controlMutex;
    net::detail::Condition m_control; // m_running or m_configured has changed
    bool m_running GUARDED_BY(m_controlMutex) = true;
    unsigned int m_configured GUARDED_BY(m_controlMutex) = 0;      // network order, 0 = search
    std::set<unsigned int> m_addresses GUARDED_BY(m_controlMutex); // among which the search at hand looks
    std::thread m_thread;
};
