/// @file
/// A recorded radar that lives again, as far as it decides. Pure: no socket, no file, no clock.
#pragma once

#include <RadarWatch/recording/contents.h>

#include <UdpSocket/protocol/negotiation.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace radar::recording {

/// It claims the host id that it had, as hosts do, gives it up where somebody objects, and answers queries
/// while it holds one and was there in the recording. Its announcement and its streams follow the id.
class ReplayedRadar {
public:
    using Output = protocol::Negotiation::Output;
    using TimePoint = protocol::Negotiation::TimePoint;

    /// @param radar outlives this
    /// @param asId  the id to claim instead of the recorded ones; 0: those
    /// @param seed  of the draw of other ids
    ReplayedRadar(const Contents::Radar& radar, std::uint8_t asId, std::uint64_t seed,
                  std::chrono::milliseconds objection);

    const std::string& name() const { return m_radar->name; }
    std::uint32_t source() const { return m_radar->source; }
    /// The id that it holds, or claims; 0: none of the plan.
    std::uint8_t hostId() const;

    /// The recording is played up to @p position; ids are claimed @p lead before they are needed.
    Output advance(Time position, Time lead, TimePoint now);
    /// A datagram of the negotiation group.
    Output receive(std::string_view datagram);

    /// What it says to a query; empty: nothing.
    std::string answer() const;
    /// Where a datagram that was recorded for @p endpoint at @p time, near the position, goes; nothing: that
    /// is none of its endpoints.
    std::optional<NetAddress> target(const NetAddress& endpoint, Time time) const;

private:
    std::uint8_t claimed(Time time) const;
    std::uint8_t hostIdAt(Time time) const;
    bool isPresent() const;
    Output note(Output output);

    const Contents::Radar* m_radar;
    std::uint8_t m_asId;
    protocol::IdDraw m_draw;
    std::chrono::milliseconds m_objection;
    protocol::Negotiation m_negotiation;
    std::uint8_t m_claim = 0; // the id that the negotiation began with; 0: it has not begun
    std::map<std::uint8_t, std::uint8_t> m_held; // what was got, by what was claimed
    Time m_position{};
    const std::string* m_announcement; // at the position
    std::vector<RadarEndpointPlace> m_endpoints;
};

} // namespace radar::recording
