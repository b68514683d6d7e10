/// @file
/// What a stream decides: where it listens, when it reminds a switch, and what it tells.
#pragma once

#include <RadarWatch/engine.h>
#include <RadarWatch/radarstream.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace radar::detail {

/// The kinds of RadarEndpoint::type.
enum EndpointType : std::uint8_t { kUdp, kTcpServer, kTcpClient };

/// Where a stream is to be had.
struct Target {
    RadarEndpoint endpoint{};
    std::uint32_t localAddress = 0; ///< network order
    std::string device;
    unsigned interfaceIndex = 0;
    std::uint64_t interfaceChange = 0;

    bool isGroup() const; ///< UDP multicast
};

/// Whether what was set up for one does for the other.
bool isSame(const Target& one, const Target& other);

/// @param name of a radar or of a variant @param number of the stream
/// @param lacking why there is no target, when there is none
std::optional<Target> targetOf(const Situation& situation, std::string_view name, int channel, int number,
                               StreamEvent::Why& lacking);

/// What has come so far.
struct Arrivals {
    std::uint64_t count = 0;
    std::chrono::steady_clock::time_point last; ///< of the last one, if count > 0
    std::chrono::nanoseconds longestGap{0};     ///< that has ended since the last step
    bool waiting = false;                       ///< the socket has more, which the reader has not taken yet
};

/// Decides without a socket, thread or clock. aim() tells it where the radar is; step() says what is to be
/// done now, and the caller says how that went: opened() or refused(), closed(), rejoined() or another.
///
///     waiting --opened--> open (Waiting for data, Flowing, Silent) --closed--> waiting
///
/// Once there was data, two seconds without, or three times the longest usual gap, are a silence. If the
/// radar still announces itself then, a switch may have forgotten the group, so it is left and joined: a
/// second later, and 10 s, 1 min, and every further 10 min from the beginning of the silence. While datagrams
/// wait for a reader, or this program stood still, it is nobody's silence. A radar that does not announce
/// itself any more is followed as long as somebody takes what it sends.
class StreamFollower {
public:
    using Time = std::chrono::steady_clock::time_point;
    enum class Act {
        None,
        Open,   ///< a socket for target(), in place of the one that there is
        Close,  ///< the socket
        Rejoin, ///< leave the group and join it
    };

    void aim(std::optional<Target> target, StreamEvent::Why lacking);
    const Target& target() const { return *m_target; }

    /// Where memory runs out, nothing has changed; what is said of the act needs none.
    Act step(Time now, const Arrivals& arrivals);

    void opened(Time now);
    void refused(int error); ///< the socket was not to be had; asked for again by the next step
    void closed();
    void rejoined(Time now);
    void lost() { m_open.reset(); } ///< the socket does not listen any more: to be opened again
    void othersJoined(unsigned others);

    std::vector<StreamEvent> takeEvents();

private:
    enum class Flow { Waiting, Flowing, Silent };

    void noteArrivals(Time now, const Arrivals& arrivals);
    void learnGap(Time now, std::chrono::nanoseconds gap, bool reminded);
    std::chrono::nanoseconds silenceThreshold() const;
    void tell(StreamEvent::Kind kind, StreamEvent::Why why, const Target& at);

    std::optional<Target> m_target;
    StreamEvent::Why m_lacking = StreamEvent::Why::RadarLeft;
    std::optional<Target> m_open;      // where the socket is
    std::optional<Target> m_told;      // the last place that was told of, until Stopped
    int m_refused = 0;                 // error that was told of, since the last aim()
    std::optional<Target> m_refusedAt; // the last that was told of, until it listens again, or Stopped
    Time m_since;                      // the last datagram, or the opening
    Time m_lastStep;
    Time m_standstill; // the last step that came late itself
    Time m_late;       // the same, or the last that found datagrams waiting

    Flow m_flow = Flow::Waiting;
    std::uint64_t m_count = 0;
    std::size_t m_rejoins = 0; // in this silence
    std::optional<Time> m_rejoinedAt;
    bool m_othersTold = false;

    Time m_gapsSince;
    std::chrono::nanoseconds m_gap{0};        // the longest usual one of these minutes
    std::chrono::nanoseconds m_earlierGap{0}; // of those before
    bool m_reminded = false;                  // in these minutes
    std::vector<StreamEvent> m_events;
};

} // namespace radar::detail
