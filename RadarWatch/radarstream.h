/// @file
/// RadarWatch: the data of a radar, wherever it goes.
///
/// Addresses are in network byte order, ports in host order where they stand alone. Errors and processes: as
/// in radarwatch.h.
#pragma once

#include <RadarWatch/radarwatch.h>
#include <UdpSocket/radaraddress.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace radar {

namespace detail {
class Engine;
}

/// Which of a radar's endpoints. Of its information devices: InformationDevice + 0 to InformationDevice + 9.
enum Channel : int {
    Image,
    ImageControl,
    ImageState,
    Arpa,
    ArpaControl,
    ArpaState,
    Original, ///< image
    InformationDevice,
};

/// One datagram, or a piece of what came over TCP.
struct Datagram {
    const char* data = nullptr; ///< valid as the one who hands it out says
    std::size_t size = 0;       ///< bytes
    /// When the system took it from the interface; when it was read, of a piece of TCP.
    std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> arrival;
    std::uint32_t source = 0;     ///< 0: it came over TCP
    std::uint16_t sourcePort = 0; ///< host order
};

/// Something that happened to a stream.
struct StreamEvent {
    /// What happened.
    enum class Kind {
        Started, ///< it listens at endpoint, on interface
        Moved,   ///< it listens there now
        Silent,  ///< nothing comes, nor waits, any more, while the radar still announces itself
        Resumed, ///< something comes again
        Stopped, ///< it does not listen any more, until the radar is back
        Refused, ///< it cannot listen there: error; tried again every second, and told once
    };
    /// Why it happened.
    enum class Why {
        None,         ///< the kind says all
        Endpoint,     ///< Moved: the radar has other endpoints
        Interface,    ///< Moved: the interface is another one, also one of the same name
        LocalAddress, ///< Moved: it changed; Stopped: there is none any more
        RadarLeft,    ///< Stopped: it is not listed, and nothing was taken for two seconds
        NoEndpoint,   ///< Stopped: it announces none for this channel
        SwitchForgot, ///< Resumed: just after the group was left and joined again, so a switch had forgotten
                      ///< it
        OthersJoined, ///< Silent: others on this computer are in the group, so that leaving it would tell no
                      ///< switch
    };
    Kind kind{};              ///< what happened
    Why why = Why::None;      ///< why
    RadarEndpoint endpoint{}; ///< where it listens, or listened
    std::string interface;    ///< its name
    unsigned others = 0;      ///< OthersJoined: how many sockets
    int error = 0;            ///< Refused: errno
    unsigned missed = 0;      ///< events before this one that nobody took in time
};

/// What a stream counted since it was made.
struct Statistics {
    /// Of a stretch of time.
    struct Rate {
        double datagrams = 0; ///< a second
        double bytes = 0;     ///< a second
    };
    std::uint64_t datagrams = 0; ///< or pieces of TCP
    std::uint64_t bytes = 0;     ///< of them
    std::uint64_t cut = 0;       ///< datagrams longer than StreamOptions::largestDatagram
    Rate lastSecond;             ///< until now
    Rate lastTenSeconds;         ///< or since the first datagram, when that is less
    /// Between one datagram and the next, by a clock that nobody sets. Median and percentile to within 7 %.
    std::chrono::nanoseconds medianGap{0};
    std::chrono::nanoseconds gap99{0};                 ///< 99th percentile
    std::chrono::nanoseconds longestGap{0};            ///< of all
    std::optional<std::chrono::nanoseconds> sinceLast; ///< none: nothing has come yet
    std::uint64_t droppedAtSocket = 0;    ///< for want of room in the receive buffer, or of memory
    std::uint64_t droppedAtInterface = 0; ///< by the interface, of everything that it receives
    std::uint64_t missing = 0;            ///< by StreamOptions::sequence, as the next two
    std::uint64_t repeated = 0;           ///< came again
    std::uint64_t reordered = 0;          ///< came late; not missing any more
};

/// Threads that serve many streams.
///
/// A value: copies mean the same threads, which end with the last copy and the last stream that uses them.
/// Callbacks of one stream come on one thread, one at a time; a slow one delays the other streams of its
/// thread.
class __attribute__((visibility("default"))) Pool {
public:
    /// How large it is.
    struct Options {
        unsigned threads = 1; ///< 1 or more
    };
    /// @throws std::system_error, std::bad_alloc
    explicit Pool(const Options& options);

private:
    friend struct StreamDoor;
    std::shared_ptr<class PoolPrivate> d;
};

/// Where datagrams carry a number that grows by one from each to the next.
struct SequenceField {
    std::size_t offset = 0;    ///< bytes
    std::size_t width = 4;     ///< bytes: 1 to 8
    bool bigEndian = true;     ///< the first byte is the highest
    std::uint64_t modulus = 0; ///< the number that 0 follows, plus one; 0: as the width says
};

/// How a stream receives.
struct StreamOptions {
    using Sequence = SequenceField; ///< apart, since clang wants it complete for std::optional

    int number = 0;                          ///< the stream's: 0 or 1
    std::size_t receiveBuffer = 1024 * 1024; ///< bytes to ask the system for; it may grant less
    std::size_t largestDatagram = 65536;     ///< bytes, no more than that; what is longer is cut
    std::optional<Sequence> sequence;        ///< none: there is no such number, and nothing counts as missing
    std::optional<Pool> pool;                ///< for callbacks; none: a thread of the stream's own
};

/// Receives one channel of one radar: waits until the radar appears, and follows it to other endpoints,
/// another local address, another interface, and from one TCP endpoint to the next.
///
/// Life cycle: listens from construction to destruction, also when the Watch is destroyed before. A socket
/// that takes the place of another is in use before that one is left, and what the system had taken for the
/// old one is still delivered, first, unless it takes more than seven such places before anybody reads;
/// around that moment a datagram may come twice. A switch that has forgotten that we listen is reminded (see
/// docs/radarwatch-streams.md). A TCP endpoint that serves is connected to about five seconds after it has
/// become known, and again within 5.5 seconds after a loss (net::TcpClient).
///
/// Two ways to take datagrams and events: callbacks, or read() and nextEvent().
///
/// Threads: with callbacks one of its own, or one of a Pool; with read() none. Any thread may call any
/// operation, read() one at a time; only read() waits. Destruction waits for a callback in progress, except
/// for one on its own thread, and makes read() return. std::bad_alloc out of a callback costs the datagram or
/// event, anything else ends the process.
class __attribute__((visibility("default"))) Stream {
public:
    /// Called on a thread of the stream or pool, one at a time, without a lock; may call anything, and
    /// destroy the Stream. The bytes are valid during the call.
    using OnDatagram = std::function<void(const Datagram&)>;
    /// As OnDatagram.
    using OnEvent = std::function<void(const StreamEvent&)>;

    /// To be read.
    /// @param name    of the radar, or of a variant of it: "North", "North:User", "North:TCP"
    /// @param channel see Channel
    Stream(const Watch& watch, const std::string& name, int channel, const StreamOptions& options = {});
    /// With callbacks. @param onEvent may be empty
    Stream(const Watch& watch, const std::string& name, int channel, OnDatagram onDatagram,
           OnEvent onEvent = {}, const StreamOptions& options = {});
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    static constexpr std::size_t kMostAtOnce = 32; ///< datagrams of one read()

    /// Takes datagrams that have come, kMostAtOnce at most, after waiting for the first. Their bytes are
    /// valid until the next call. Not for streams with callbacks.
    /// @param timeout negative: without end
    /// @return how many; 0 when time is up, an event waits, a signal handler ran, or the stream is being
    ///         destroyed
    std::size_t read(Datagram* datagrams, std::size_t count, std::chrono::milliseconds timeout);

    /// The next event, if there is one. The last 64 are kept. Not for streams with callbacks.
    std::optional<StreamEvent> nextEvent();

    /// A descriptor that is readable while datagrams or events wait. It belongs to the stream; neither read
    /// nor close it. Not for streams with callbacks. @throws std::system_error where the system has none
    int descriptor() const;

    Statistics statistics() const; ///< until now

private:
    friend struct StreamDoor;
    Stream() = default;
    std::shared_ptr<detail::Engine> m_engine;
    std::shared_ptr<class StreamPrivate> d;
};

/// Sends to one channel of one radar, where it is now.
///
/// Threads: none; any thread may send, several at once. Destruction does not wait for a send that waits for a
/// TCP peer, nor end it: it goes on until the peer reads, or the connection is lost.
class __attribute__((visibility("default"))) Control {
public:
    /// @param name, channel as for Stream @param number of the stream: 0 or 1
    Control(const Watch& watch, const std::string& name, int channel, int number = 0);
    ~Control();
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    /// One datagram from the local address, or bytes over TCP. Just after construction it waits for a moment,
    /// until the way is known; then for a TCP peer that does not read, half a second where the radar connects
    /// to us (of several connections the newest counts), without end where we connect.
    /// @return false, and errno: ENOENT when there is no such radar or it has no such endpoint, ENETDOWN when
    ///         there is no local address, ENOTCONN when TCP is not connected, EAGAIN when a radar that
    ///         connects to us does not read, or what the system says; a port for TCP that is taken
    ///         (EADDRINUSE) is tried again every second
    bool send(const void* data, std::size_t size);

private:
    friend struct StreamDoor;
    Control() = default;
    std::shared_ptr<detail::Engine> m_engine;
    std::shared_ptr<class ControlPrivate> d;
};

} // namespace radar
