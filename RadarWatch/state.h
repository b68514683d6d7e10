/// @file
/// What is known at a moment, and the events between two moments. No socket, thread, lock or clock.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace radar::detail {

using TimePoint = std::chrono::steady_clock::time_point;

/// A radar, and when it was heard.
struct Sighting {
    Radar radar; ///< its age is meaningless
    TimePoint heard;
    TimePoint firstHeard{}; ///< this and the next: for Sightings alone
    TimePoint toldToRenumber = TimePoint::min();
};

struct State {
    std::map<std::string, Sighting, std::less<>> radars;
    std::map<int, std::vector<std::string>> conflicts; ///< holders by host id
    LocalAddress local;

    /// Takes over what an event tells. Where memory runs out, nothing has changed.
    void apply(const Event& event);
    /// @param name of a radar, or of a variant that it has; null: there is none
    const Sighting* find(std::string_view name) const;
};

/// Bits of Event::Change; 0: nothing but the age differs.
unsigned changesBetween(const Radar& before, const Radar& now);

Event radarEvent(Event::Kind kind, const Sighting& sighting, TimePoint now);
Event conflictEvent(int hostId, const std::vector<std::string>& holders, TimePoint now);
Event localEvent(const LocalAddress& before, const LocalAddress& after, TimePoint now);

/// The events that lead from one state to another.
std::vector<Event> difference(const State& from, const State& to, TimePoint now);

} // namespace radar::detail
