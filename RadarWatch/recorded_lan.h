/// @file
/// What stands in for a LAN where a recording does.
#pragma once

#include <RadarWatch/recording/blocks.h>
#include <RadarWatch/wakeup.h>

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/radaraddress.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace radar {

namespace detail {

/// Stands before each datagram that comes from a recording, since its socket can tell neither.
struct RecordedHeader {
    std::int64_t arrival; ///< nanoseconds since the epoch
    std::uint32_t source; ///< network order
    std::uint32_t port;   ///< of the source, host order
};

} // namespace detail

/// Has the local address of a network that no interface is in, and a pair of sockets of the system for each
/// listener, so that everything else is as on a LAN. Threads: one, from construction to destruction.
class RecordedLan : public net::detail::ProcessBound {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr const char* kInterface = "recording";

    /// Whether an address can only be that of a recording, of one that has ended perhaps.
    static bool isRecorded(std::uint32_t localAddress);
    /// The recording that has this address; none: there is no such recording, or it has ended.
    static std::shared_ptr<RecordedLan> find(std::uint32_t localAddress);
    /// As openRecording.
    static std::shared_ptr<RecordedLan> open(const std::string& path, double speed, unsigned streams);

    ~RecordedLan();

    std::uint32_t localAddress() const { return m_localAddress; }
    bool isOver() const { return m_over; }
    std::uint64_t dropped() const { return m_dropped; }

    /// A socket that hears what was sent there, behind a RecordedHeader each, and stamps it with the time at
    /// which it comes. @param flags SOCK_NONBLOCK or 0
    /// @param stream counts as one that listens, as long as it is there @return not open: refused (errno)
    net::detail::Descriptor listen(const NetAddress& endpoint, int flags,
                                   const std::weak_ptr<const void>& stream = {});
    /// From such a socket, as net::detail::receiveFrom.
    static net::detail::Received receiveFrom(const net::detail::Descriptor& socket, char* buffer, int size);

private:
    using Key = std::pair<std::uint32_t, std::uint16_t>; // address and port, network order
    struct Listener {
        net::detail::Descriptor socket; // what it reads is written there
        std::weak_ptr<const void> stream;
        bool takesNothing = false;
    };
    using Listeners = std::vector<std::shared_ptr<Listener>>;
    struct Announcement {
        NetAddress source;
        std::string bytes;
        recording::Time time;
    };

    RecordedLan(const std::string& path, double speed, unsigned streams);

    void lookAhead();
    void keep(const recording::Datagram& datagram);
    void run();
    void play();
    bool isAwaited();
    bool waitUntil(std::optional<Clock::time_point> moment);
    void announce();
    void deliver(const recording::Datagram& datagram);
    bool send(Listener& listener, const recording::Datagram& datagram);
    bool awaitRoom(const Listener& listener);
    void rest(Clock::time_point until, int socket);

    const std::string m_path;
    const double m_speed; // 0: without pauses
    const unsigned m_streams;
    std::uint32_t m_localAddress = 0;
    std::atomic<bool> m_over = false;
    std::atomic<std::uint64_t> m_dropped = 0;
    std::atomic<bool> m_ending = false;
    std::atomic<bool> m_announceSoon = false;
    detail::Wakeup m_wakeup;

    // The thread's, but in the constructor.
    recording::Blocks m_file;
    recording::Time m_position{};                        // of the latest datagram
    std::map<std::string, Announcement> m_announcements; // the last of each radar, by name
    Clock::time_point m_nextAnnouncing{};

    net::detail::Mutex m_mutex;
    std::map<Key, Listeners> m_listeners GUARDED_BY(m_mutex);

    std::thread m_thread;
};

} // namespace radar
