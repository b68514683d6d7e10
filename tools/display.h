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
#include <string>
#include <vector>

struct Radar {
    std::string name; ///< as the client lists it, bytes of any kind
    int hostId;       ///< 0: the radar is not in the plan of host ids
    int streams;
    RadarAddress endpoints;
    std::optional<std::chrono::milliseconds> age; ///< since its last announcement, where that was heard
};

/// The process's MultiRadarClient, and beside it a receiver of its own on the announcements: the client tells
/// neither when a radar was heard last nor how many streams it announced.
///
/// Threads: query() and radars() belong to one thread. The listener's calls come on the client's
/// threads.
class Display : public iMultiRadarCheckerListener, public net::iUdpDataListener {
public:
    Display();
    ~Display();
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    /// The local address that leads to the radars, network order; 0 while the search goes on.
    unsigned int localIp() const { return m_localIp; }

    /// Asks the radars to announce themselves, once a local address is known.
    void query();
    std::vector<Radar> radars() const;

    void OnLocalIpChanged(unsigned int localIp) override { m_localIp = localIp; }
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override;

private:
    std::atomic<unsigned int> m_localIp = 0;
    unsigned int m_receiverIp = 0; // what m_receiver listens on
    mutable std::mutex m_mutex;    // guards m_heard
    std::map<std::string, std::chrono::steady_clock::time_point> m_heard;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};
