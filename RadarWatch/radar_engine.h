/// @file
/// The engine as it is.
#pragma once

#include <RadarWatch/engine.h>
#include <RadarWatch/followers.h>
#include <RadarWatch/inbox.h>
#include <RadarWatch/local_link.h>
#include <RadarWatch/sightings.h>

#include <UdpSocket/base/link_history.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/tcp_framing.h>
#include <UdpSocket/tcpsocket.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace radar::detail {

/// Goes by the configured local address. Where there is none, a MultiRadarClient searches, and does nothing
/// else: its query() prints, and what standard output is led to may stand still.
///
/// Threads: one from construction to the end, which hears, asks, and calls the followers. A client's checker
/// thread and, with a fixed radar, the TCP client's receive thread come in besides. The last owner ends it;
/// where that is a follower, on the engine's own thread, the thread ends it behind the call.
class RadarEngine : public Engine,
                    public net::detail::ProcessBound,
                    public iMultiRadarCheckerListener,
                    public net::iTcpDataListener {
public:
    static std::shared_ptr<RadarEngine> forAddress(std::uint32_t configured);

    void follow(const std::string& name, std::shared_ptr<Follower> follower) override;
    void unfollow(const Follower* follower) override;

    /// The inbox gets what is there, and what happens until it leaves.
    void join(Inbox& inbox);
    void leave(Inbox& inbox);

    /// As the inbox sees it.
    std::vector<Radar> radars(const Inbox& inbox) const;
    std::optional<Radar> find(const Inbox& inbox, std::string_view name) const;
    LocalAddress localAddress(const Inbox& inbox) const;

    /// As Watch says; what is to be sent goes out on the engine's thread.
    bool renumber(std::string_view name);
    bool reset();

private:
    explicit RadarEngine(std::uint32_t configured);
    ~RadarEngine() override;
    static void end(RadarEngine* engine) noexcept;

    void OnLocalIpChanged(unsigned int localIp) override;
    void OnTcpDataReceived(int fd, const char* addr, unsigned short port, const char* data, int len) override;
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

    void run();
    void tick(TimePoint now);
    void lookAtLocalAddress(TimePoint now);
    void openLink();
    void hear();
    void takeAnnouncement(std::string_view datagram, std::uint32_t source);
    void sendWaiting();
    void sendToRadars(std::string_view message);
    void send(const wire::Group& group, std::string_view message);
    void callFollowers(std::optional<TimePoint> tick);
    Situation situationOf(const std::string& name) const;

    /// Changes the sightings, and tells what happened. @param change takes the sightings, returns events
    /// @return false: memory ran out
    template <class Change>
    bool update(const char* step, Change change);

    const std::uint32_t m_radarIp; // the fixed radar, network order; 0: none
    LocalAddress::Origin m_origin;
    std::atomic<std::uint32_t> m_wanted; // local address, network order; 0: none yet
    std::atomic<bool> m_lookSoon = false;
    std::atomic<bool> m_tcpService = false; // as profile.ini says
    std::atomic<bool> m_ending = false;
    Wakeup m_wakeup;
    protocol::TcpFraming m_framing; // TCP client's thread only

    // Of the engine's thread.
    std::uint32_t m_lookedFor = 0; // the address of the last look
    std::optional<Interface> m_interface;
    std::shared_ptr<net::detail::LinkHistory> m_links;
    std::uint64_t m_removals = 0; // of the interface, when the link was opened
    LocalLink m_link;
    std::unique_ptr<net::TcpClient> m_tcp;
    TimePoint m_lastTick{};
    TimePoint m_nextTick{};
    bool m_openRefused = false; // was told; the next success makes it news again
    bool m_sendRefused = false;
    std::uint64_t m_toldFollowers = 0;

    Followers m_followers;
    mutable net::detail::Mutex m_mutex;
    Sightings m_sightings GUARDED_BY(m_mutex);
    Situation m_situation GUARDED_BY(m_mutex); // without a radar
    std::uint64_t m_changes GUARDED_BY(m_mutex) = 1;
    std::list<Inbox*> m_inboxes GUARDED_BY(m_mutex);
    std::set<std::string> m_toRadars GUARDED_BY(m_mutex); // what waits to be sent to the discovery group
    std::set<std::string> m_toHosts GUARDED_BY(m_mutex);  // and to that of the host ids

    std::unique_ptr<MultiRadarClient> m_client; // none where the address is configured
    bool m_endsItself = false;
    std::thread m_thread;
};

} // namespace radar::detail
