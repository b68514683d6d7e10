/// @file
/// RadarWatch: which radars there are, as events.
///
/// Addresses are in network byte order, as net::transAddr takes them. Names are bytes of any kind: show them
/// escaped. Errors: what the system refuses for want of descriptors, threads or memory while an object is
/// made is thrown (std::system_error, std::bad_alloc); later it costs the datagram at hand, with a line on
/// standard error. Processes: objects belong to the process that made them; in a child made by fork they do
/// nothing, their destruction ends at once, and no stream or Control can be made on them (std::system_error).
/// A program may end while any object stands.
#pragma once

#include <UdpSocket/radaraddress.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace radar {

/// Of the library that is loaded: "1.0.0".
__attribute__((visibility("default"))) const char* version();

/// The endpoints of both streams of a host, by the plan of host ids. @param hostId 1, or 16 to 63; empty for
/// any other
__attribute__((visibility("default"))) std::vector<RadarAddress> groups(int hostId);

/// One radar, as it announces itself.
struct Radar {
    std::string name;                  ///< at most 16 bytes
    int hostId = 0;                    ///< 0: its endpoints are not in the plan
    std::uint32_t source = 0;          ///< the address that its last announcement came from
    std::vector<RadarAddress> streams; ///< one or two; none where only its TCP service is to be used
    bool user = false;                 ///< streams[0] has endpoints that its user chose: the variant ":User"
    std::optional<RadarAddress>
        tcp; ///< its TCP service, the variant ":TCP"; see [Radar] TCPService of profile.ini
    std::chrono::milliseconds age{0}; ///< since its last announcement, when this was told
};

/// The local address that leads to the radars.
struct LocalAddress {
    /// Why an address is in force.
    enum class Origin {
        None,             ///< there is none yet, or no longer
        Options,          ///< it was given to the Watch
        ProfileAddress,   ///< [Local] IP of profile.ini
        ProfileInterface, ///< [Local] NetName of profile.ini
        Search,           ///< a radar was heard on it
    };
    std::uint32_t address = 0;    ///< network order; 0: there is none
    Origin origin = Origin::None; ///< why this one
    std::string interface;        ///< that has the address
};

/// Something that happened.
struct Event {
    /// What happened, and which members tell of it.
    enum class Kind {
        Appeared, ///< radar: as it announces itself
        Changed,  ///< radar: as it announces itself now; changes
        Left,     ///< radar: as it was last; reason, successor
        Conflict, ///< hostId, holders: several radars have one host id, or others than before; looked for
                  ///< once a second
        ConflictEnded, ///< hostId, holders: who is left
        LocalFound,    ///< local
        LocalChanged,  ///< local, previous
        LocalLost,     ///< previous: this computer has that address no more
    };
    /// Why a radar left.
    enum class Reason {
        None,
        Silent,       ///< for eight seconds
        Renumbered,   ///< its host was told to give up its id, or announces successor under another id
        Renamed,      ///< its host announces successor under the same id
        LocalAddress, ///< not heard since the local address changed or was lost
        Displaced,    ///< the table of radars is full of others
    };
    /// Bits of changes.
    enum Change : unsigned {
        HostId = 1,
        Source = 2,
        Endpoints = 4, ///< of a stream
        Streams = 8,   ///< how many there are
        Variants = 16, ///< user, or whether there is tcp
        Tcp = 32,      ///< endpoints of tcp
    };

    Kind kind{};                      ///< which members tell something depends on it
    Radar radar;                      ///< of Appeared, Changed and Left
    unsigned changes = 0;             ///< of Changed: bits of Change
    Reason reason = Reason::None;     ///< of Left
    std::string successor;            ///< of Left, where there is one: a radar's name
    int hostId = 0;                   ///< of Conflict and ConflictEnded
    std::vector<std::string> holders; ///< of hostId: names, ascending, the first 16
    LocalAddress local;               ///< in force from now on
    std::uint32_t previous = 0;       ///< the local address before, network order
    /// Earlier events of this radar, host id or local address that this one stands for, too.
    unsigned merged = 0;
    std::chrono::steady_clock::time_point when{}; ///< it happened
};

/// Which radars there are on the LAN.
///
/// Life cycle: any number a process. Watches with the same configured local address share what they need of
/// the system: one thread, a socket to hear and one to ask once a second, with [Radar] IP of profile.ini a
/// TCP connection, and a MultiRadarClient where the address has to be searched. The last one to be destroyed
/// ends it.
///
/// Events wait in a queue, in the order in which things happened. The last 1024 are kept as they are; beyond
/// that, events of the same radar (host id, local address) are merged, so that a queue that nobody reads
/// stays bounded and only intermediate states are lost (Event::merged). Take them in one of three ways:
/// next(); a descriptor that an event loop waits for, and next() with 0; or a callback.
///
/// Threads: any thread may call any operation; none but next() waits, so all may be called from a thread that
/// draws. Destruction waits for a callback in progress, except for one on its own thread, and makes next()
/// return.
class __attribute__((visibility("default"))) Watch {
public:
    using Callback = std::function<void(const Event&)>; ///< takes one event

    /// How a Watch is to look.
    struct Options {
        /// The local address to use; 0: as profile.ini says, or a search (see MultiRadarClient).
        std::uint32_t localAddress = 0;
    };

    Watch();
    explicit Watch(const Options& options); ///< events are taken by next()
    /// @param callback takes all events, on a thread of this Watch, one at a time and without a lock. It may
    ///                 call anything, and may destroy the Watch. std::bad_alloc that it throws costs the
    ///                 event, anything else ends the process.
    explicit Watch(Callback callback);
    Watch(Callback callback, const Options& options); ///< the same
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Takes the next event. @param timeout negative: without end
    /// @return none when time is up, a signal handler ran, or the Watch has a callback or is being destroyed
    std::optional<Event> next(std::chrono::milliseconds timeout);

    /// A descriptor that is readable while events wait: for epoll, Qt, GLib, asyncio. It belongs to the
    /// Watch; neither read nor close it.
    int descriptor() const;

    /// The radars by name, ascending, with their present age: as the events taken so far tell, and as they
    /// are now as long as no event has been taken.
    std::vector<Radar> radars() const;
    /// One of them, by its name or that of a variant ("North", "North:User", "North:TCP").
    std::optional<Radar> find(std::string_view name) const;
    /// As the events taken so far tell; as radars() does.
    LocalAddress localAddress() const;

    /// Tells the host behind a radar to give up its host id and negotiate another.
    /// @return false: no such radar, it has no host id, or there is no local address
    bool renumber(std::string_view name);
    /// Sends the reset command to all radars. @return false: there is no local address
    bool reset();

private:
    friend class Stream;
    friend class Control;
    std::shared_ptr<class WatchPrivate> d;
};

} // namespace radar
