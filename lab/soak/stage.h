/// @file
/// Where the faults happen: a virtual LAN with a display, hosts and a stranger, and those who watch there.
#pragma once

#include "fault.h"

#include <UdpSocket/detail/wire.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
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
inline constexpr const char* kStanding = "North"; ///< the radar on host1 that is there all the time
inline constexpr int kStandingId = 20;

double secondsSince(Clock::time_point start);

/// Seconds until each condition has come true, in their order.
/// @throws Broken when one has not by @p patience
std::vector<double> secondsUntil(const std::vector<std::function<bool()>>& conditions,
                                 std::chrono::seconds patience, const std::string& what);
double secondsUntil(const std::function<bool()>& condition, std::chrono::seconds patience,
                    const std::string& what);

/// What a process holds.
struct Resources {
    long memory; ///< resident, kB
    long descriptors;
    long threads;
};
Resources resourcesOf(pid_t process);

/// A real display process, "radarctl watch --json", and the table that it tells of. One thread at a time.
class Watch {
public:
    /// @param profile a directory with a profile.ini; empty: none, and the display searches
    Watch(const lab::Node& node, const std::string& profile = "",
          const std::vector<std::string>& environment = {});

    /// Whether it lists the radar, by all that it has told up to now.
    bool lists(const std::string& name);
    /// How often radars have left since the last call.
    int departures();
    /// The wall clock that it saw at what it told last.
    std::time_t lastEvent() const { return m_lastEvent; }
    lab::Process& process() { return m_process; }

private:
    void read();

    lab::Process m_process;
    std::set<std::string> m_listed;
    int m_departures = 0;
    std::time_t m_lastEvent = 0;
};

/// A display in this process, which asks once a second.
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

/// Hears one group, and says when what was heard there last. Any thread.
class Ears : public net::iUdpDataListener {
public:
    Ears(const lab::Node& node, const char* localIp, const wire::Group& group = wire::kDiscovery);
    ~Ears();

    /// Whether an announcement of that name, or any datagram when it is empty, came after @p moment.
    bool heardSince(Clock::time_point moment, const std::string& name = "") const;

private:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override;

    mutable std::mutex m_mutex; // guards m_last
    std::map<std::string, Clock::time_point> m_last;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

/// Sends one datagram to a group again and again, through the "any" address.
class Ticker {
public:
    Ticker(const lab::Node& node, const wire::Group& group, std::string datagram,
           std::chrono::milliseconds period);

private:
    std::jthread m_thread;
};

/// The LAN: "display" (eth0 leads to the radars, eth1 nowhere), "host1" with the standing radar, "host2" and
/// "stranger". Until they are needed, the links of three further displays are down, and those of "host3" to
/// "host50", where these are wanted.
class Stage {
public:
    /// @param full faults take as long as they are meant to, rather than as short as is still telling
    Stage(bool full, bool crowd);

    lab::Lan& lan() { return m_lan; }
    const lab::Node& display() { return m_lan.node("display"); }
    const lab::Node& host() { return m_lan.node("host2"); }
    const lab::Node& standingHost() { return m_lan.node("host1"); }
    const lab::Node& stranger() { return m_lan.node("stranger"); }
    std::vector<const lab::Node*> crowd();
    /// Three computers for those who must not share one: a socket hears what others there have joined.
    std::vector<const lab::Node*> furtherDisplays();
    bool full() const { return m_full; }

    /// The process behind the standing radar, started when it is asked for first.
    lab::Process& standing();
    /// The standing display, which searches; started when it is asked for first.
    Watch& watch();
    bool hasWatch() const { return m_watch.has_value(); }

    /// A real host, once it serves.
    lab::Process startHost(const lab::Node& node, const std::string& name, int id, bool simulate = false);
    /// A host in this process.
    std::unique_ptr<HostServer> serve(const lab::Node& node, const std::string& name, int id = 30);
    /// A radar's name that nobody has had.
    std::string freshName() { return "Fresh-" + std::to_string(++m_names); }
    /// A directory whose profile.ini has that text.
    std::string profile(const std::string& text);

private:
    bool m_full;
    lab::Lan m_lan;
    int m_names = 0;
    int m_profiles = 0;
    std::optional<lab::Process> m_standing;
    std::optional<Watch> m_watch;
};

} // namespace soak
