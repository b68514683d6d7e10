/// @file
/// The virtual LAN that faults are made on, with a display, hosts and a stranger, and what observes them.
#pragma once

#include "fault.h"

#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <lab/lan.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace soak {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline constexpr const char* kDisplayAddress = "10.20.2.1";
inline constexpr const char* kPermanentRadar = "North"; ///< runs on host1 all the time
inline constexpr int kPermanentRadarId = 20;

double secondsSince(Clock::time_point start);

/// Seconds until each condition has come true, in their order.
/// @throws RequirementFailed when one has not by @p patience
std::vector<double> secondsUntil(const std::vector<std::function<bool()>>& conditions,
                                 std::chrono::seconds patience, const std::string& what);
double secondsUntil(const std::function<bool()>& condition, std::chrono::seconds patience,
                    const std::string& what);

/// Runs a command in the network of the bridge, which is this process's.
/// @throws RequirementFailed when it fails
void runInLan(const std::string& command);

/// What a process holds.
struct Resources {
    long memory; ///< resident, kB
    long descriptors;
    long threads;
};
Resources resourcesOf(pid_t process);

/// A real display process, "radarctl watch --json", and the radar table that it reports. One thread.
class Watch {
public:
    /// @param profile a directory with a profile.ini; empty: none, and the display searches
    Watch(const lab::Node& node, const std::string& profile = "",
          const std::vector<std::string>& environment = {});

    /// Whether it lists the radar, by all that it has reported up to now.
    bool lists(const std::string& name);
    /// How often radars have left since the last call.
    int departures();
    /// The wall clock of its last report.
    std::time_t lastEvent() const { return m_lastEvent; }
    lab::Process& process() { return m_process; }

private:
    void read();

    lab::Process m_process;
    std::set<std::string> m_listed;
    int m_departures = 0;
    std::time_t m_lastEvent = 0;
};

/// A display in this process, which queries once a second.
class Client {
public:
    /// @param localIp the configured address; "0.0.0.0": it searches
    Client(const lab::Node& node, const char* localIp);
    ~Client();

    bool lists(const std::string& name) const { return client().getRadarStreamCount(name.c_str()) > 0; }
    MultiRadarClient& client() const { return *m_client; }

private:
    std::unique_ptr<MultiRadarClient> m_client;
    std::jthread m_asking;
};

/// Receives one group, and knows when each radar's last announcement and the last datagram came. Any thread.
class GroupListener : public net::iUdpDataListener {
public:
    GroupListener(const lab::Node& node, const char* localIp, const wire::Group& group = wire::kDiscovery);
    ~GroupListener();

    /// Whether an announcement of that name, or any datagram when it is empty, came after @p moment.
    bool receivedSince(Clock::time_point moment, const std::string& name = "") const;

private:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override;

    mutable std::mutex m_mutex; // guards m_last
    std::map<std::string, Clock::time_point> m_last;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

/// Sends one datagram to a group periodically, from the "any" address.
class PeriodicSender {
public:
    PeriodicSender(const lab::Node& node, const wire::Group& group, std::string datagram,
                   std::chrono::milliseconds period);

private:
    std::jthread m_thread;
};

/// The LAN: "display" (eth0 leads to the radars, eth1 nowhere), "host1" with the permanent radar, "host2" and
/// "stranger". The links of three additional displays, and of "host3" to "host50" where a fault needs many
/// hosts, are down until they are used.
class Testbed {
public:
    /// @param full faults last as long as in installations, not only as long as a short test needs
    Testbed(bool full, bool manyHosts);

    lab::Lan& lan() { return m_lan; }
    const lab::Node& display() { return m_lan.node("display"); }
    const lab::Node& host() { return m_lan.node("host2"); }
    const lab::Node& permanentHostNode() { return m_lan.node("host1"); }
    const lab::Node& stranger() { return m_lan.node("stranger"); }
    std::vector<const lab::Node*> manyHosts();
    /// Three computers: receivers on one would share group memberships.
    std::vector<const lab::Node*> additionalDisplays();
    bool full() const { return m_full; }

    /// The process of the permanent radar, started by the first call.
    lab::Process& permanentHost();
    /// The permanent display, which searches; started by the first call.
    Watch& watch();
    bool hasWatch() const { return m_watch.has_value(); }

    /// A real host, once it serves.
    lab::Process startHost(const lab::Node& node, const std::string& name, int id, bool simulate = false);
    /// A host in this process.
    std::unique_ptr<HostServer> serve(const lab::Node& node, const std::string& name, int id = 30);
    /// A radar's name that was not used before.
    std::string newName() { return "Fresh-" + std::to_string(++m_names); }
    /// Makes a directory whose profile.ini has that text.
    std::string profile(const std::string& text);

private:
    bool m_full;
    lab::Lan m_lan;
    int m_names = 0;
    int m_profiles = 0;
    std::optional<lab::Process> m_permanentHost;
    std::optional<Watch> m_watch;
};

} // namespace soak
