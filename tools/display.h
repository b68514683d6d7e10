/// @file
/// The radars as a display sees them.
#pragma once

#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct Radar {
    std::string name;                  ///< as the client lists it, bytes of any kind
    int hostId = 0;                    ///< 0: the radar is not in the plan of host ids
    std::vector<RadarAddress> streams; ///< at least one

    /// Of its last announcement, where that was heard.
    std::string source;                           ///< the address that it came from
    std::optional<std::chrono::milliseconds> age; ///< how long ago that was
};

/// Host ids that several radars announce, with the radars' names. A radar that is also listed under a suffix
/// (":TCP") is one.
std::map<int, std::set<std::string>> sharedIds(const std::vector<Radar>& radars);

/// The process's MultiRadarClient, and beside it a receiver of its own on the announcements: the client tells
/// neither when a radar was heard last, nor from where, nor the endpoints of a second stream.
///
/// Threads: query() and radars() belong to one thread. The listener's calls come on the client's
/// threads.
class Display : public iMultiRadarCheckerListener, public net::iUdpDataListener {
public:
    /// @param localIp the local address to use, network order; 0: as profile.ini says, or a search
    explicit Display(unsigned int localIp);
    ~Display();
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    /// The local address that leads to the radars, network order; 0 while the search goes on.
    unsigned int localIp() const { return m_localIp; }

    /// Asks the radars to announce themselves, once a local address is known.
    void query();
    std::vector<Radar> radars() const;

    void OnLocalIpChanged(unsigned int localIp) override;
    void OnUdpGroupDataReceived(const char* fromIp, int, const char*, int, const char* data,
                                int length) override;

private:
    struct LastHeard {
        std::chrono::steady_clock::time_point time;
        std::string source;
        std::optional<RadarAddress> secondStream;
    };

    const unsigned int m_wantedIp;
    std::atomic<unsigned int> m_localIp = 0;
    unsigned int m_receiverIp = 0;                         // what m_receiver listens on
    mutable std::mutex m_mutex;                            // guards m_heard
    std::map<std::string, LastHeard, std::less<>> m_heard; // by the name announced
    std::unique_ptr<net::UdpReceiver> m_receiver;
};
