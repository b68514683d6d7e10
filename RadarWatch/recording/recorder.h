/// @file
/// Hears groups, and records what comes.
#pragma once

#include <RadarWatch/recording/writer.h>

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/link_history.h>

#include <sys/socket.h>

#include <atomic>
#include <compare>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <vector>

namespace radar::recording {

/// Where a group is to be heard.
struct Place {
    std::string interface;                          ///< a device's name
    std::uint32_t ip = 0;                           ///< the group, network order
    std::uint16_t port = 0;                         ///< network order
    auto operator<=>(const Place&) const = default; // NOLINT(modernize-use-nullptr): there is none
};

/// Each group has a socket of its own, bound to the group and joined on its interface, so that the kernel
/// filters, and needs no privileges. Times are the kernel's, and what comes is recorded in their order, also
/// where it is held up for a while: then what is ahead waits for the group that is behind. A wall clock that
/// is set meanwhile does not touch them, and while the machine sleeps they go on.
///
/// What the writer has no room for is dropped and counted: receiving never waits for a file. So is a datagram
/// for which memory runs out. Memory: the writer's queue, a chunk of 256 KiB, what comes in 20 ms, and a
/// thousand datagrams of each group that has more waiting; of one that is heard no longer, and in the end of
/// all, what the system has kept.
///
/// Threads: one that receives and the writer's, from construction to finish() or destruction. Any thread may
/// call any operation, finish() one.
class Recorder {
public:
    struct Counts {
        std::uint64_t datagrams = 0; ///< that were handed to the writer
        std::uint64_t bytes = 0;     ///< of their payloads
        std::uint64_t dropped = 0;   ///< by the system, and here
        std::uint64_t droppedBySystem = 0;
    };
    struct Refusal {
        Place place;
        int error;
    };

    /// @param failed called once, on the writer's thread, when the system refused to write
    /// @throws std::system_error
    Recorder(Writer::Options options, std::function<void()> failed);
    ~Recorder() { finish(); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// From here on these are heard and no others. Sockets that are there stay, but for an interface that was
    /// replaced meanwhile. Call it about once a second: what was refused is tried again.
    /// @return what is refused
    std::vector<Refusal> listenTo(const std::set<Place>& places);

    /// A line for people, put on the next datagram that is recorded.
    void comment(const std::string& text);

    /// The time that what comes now is given.
    Time now();

    /// Bytes that came on a TCP connection.
    void takeTcp(const NetAddress& peer, std::string_view bytes);

    /// Records what has arrived, and ends.
    void finish();

    Counts counts();
    const Writer& writer() const { return m_writer; }

private:
    /// Another one once the interface was replaced.
    struct Device {
        unsigned int index = 0;
        std::uint64_t removals = 0;
        bool operator==(const Device&) const = default;
    };
    struct Socket {
        net::detail::Descriptor descriptor;
        NetAddress group{};
        std::size_t interface = 0;                  // in m_interfaces
        Device device;                              // when the group was joined
        std::chrono::steady_clock::time_point last; // arrival, which counts asleep()
        std::uint32_t dropped = 0;                  // by the system, as far as it is counted
    };
    struct Interface {
        std::string name;
        Statistics statistics;
    };
    struct Waiting {
        Time time;
        std::size_t interface;
        NetAddress source;
        NetAddress destination;
        std::string payload;
        std::chrono::steady_clock::time_point taken; // out of the socket
    };
    static constexpr std::size_t kBatch = 64; // datagrams of one system call

    Time timeOf(std::chrono::steady_clock::time_point moment) const; // that counts asleep()
    Time timeOfNow() REQUIRES(m_mutex);
    std::chrono::nanoseconds asleep() REQUIRES(m_mutex);
    bool add(const net::detail::Descriptor& descriptor, std::uint64_t number);
    std::size_t interfaceNumber(const std::string& name) REQUIRES(m_mutex);
    void run();
    void round(std::span<const std::uint64_t> ready) REQUIRES(m_mutex);
    void sort() REQUIRES(m_mutex);
    bool drain(Socket& socket) REQUIRES(m_mutex);
    void empty(Socket& socket) REQUIRES(m_mutex);
    std::size_t receive(Socket& socket) REQUIRES(m_mutex);
    void countDrops(Socket& socket) REQUIRES(m_mutex);
    void drop(std::size_t interface, std::uint64_t count) REQUIRES(m_mutex);
    void dropForWantOfMemory(std::size_t interface) REQUIRES(m_mutex);
    void record(std::size_t count) REQUIRES(m_mutex);
    void append(const Waiting& waiting) REQUIRES(m_mutex);
    void hand() REQUIRES(m_mutex);
    Chunk closing();

    const net::detail::Clocks m_start = net::detail::Clocks::now();
    const std::chrono::nanoseconds m_asleepBefore = net::detail::timeAsleep();
    const std::shared_ptr<net::detail::LinkHistory> m_links = net::detail::LinkHistory::ofThisNetwork();
    net::detail::Descriptor m_ready;  // epoll
    net::detail::Descriptor m_ending; // eventfd

    net::detail::Mutex m_mutex;
    std::chrono::nanoseconds m_asleep GUARDED_BY(m_mutex) = m_asleepBefore;
    std::map<Place, std::uint64_t> m_places GUARDED_BY(m_mutex); // number of the socket
    std::map<std::uint64_t, Socket> m_sockets GUARDED_BY(m_mutex);
    std::uint64_t m_lastSocket GUARDED_BY(m_mutex) = 0;
    std::vector<Interface> m_interfaces GUARDED_BY(m_mutex);
    std::string m_interfaceBlocks GUARDED_BY(m_mutex);
    std::vector<char> m_buffer GUARDED_BY(m_mutex);
    std::deque<Waiting> m_waiting GUARDED_BY(m_mutex); // by time
    Time m_complete GUARDED_BY(m_mutex) = Time::max(); // up to then all has come out of its socket
    Chunk m_chunk GUARDED_BY(m_mutex);
    Counts m_inChunk GUARDED_BY(m_mutex);
    std::uint64_t m_tcpInChunk GUARDED_BY(m_mutex) = 0;         // pieces
    std::vector<std::uint64_t> m_inChunkOf GUARDED_BY(m_mutex); // datagrams by interface
    Counts m_counts GUARDED_BY(m_mutex);
    std::atomic<bool> m_ranOut = false;                // memory, which is still to be said
    std::string m_comments GUARDED_BY(m_mutex);        // for the next datagram
    std::string m_commentsInChunk GUARDED_BY(m_mutex); // lost with it, otherwise
    Writer m_writer;                                   // ends before what it asks for its last words
    std::thread m_thread;
};

} // namespace radar::recording
