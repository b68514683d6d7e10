/// @file
/// Which radars are there, by their announcements. No socket, thread, lock or clock.
#pragma once

#include <RadarWatch/state.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace radar::detail {

/// The radars by the names that they announce; who is listed, and for how long, protocol::RadarTable decides.
///
/// Where one host announces a name and later another, only the later one counts as holding the host id: a
/// radar that was renamed is no conflict with itself.
///
/// Where memory runs out, std::bad_alloc is thrown, and events may be lost: difference() finds what they
/// said.
class Sightings {
public:
    static constexpr std::size_t kMaxHolders = 16; ///< named in a conflict; anybody can announce names

    /// @param source network order
    std::vector<Event> heard(const protocol::Announcement& announcement, std::uint32_t source, TimePoint now);
    /// @param local where it is another than before: those that were heard through that one may be gone
    std::vector<Event> setLocal(const LocalAddress& local, TimePoint now);
    /// The radar's host was told to give up its id.
    void renumbered(std::string_view name, TimePoint now);
    /// Once a second: radars that are silent, and conflicts.
    std::vector<Event> look(TimePoint now);

    const State& state() const { return m_state; }

private:
    /// Of the radars that one address announces under one host id, the one that began last.
    using Newest = std::map<std::pair<std::uint32_t, int>, const Sighting*>;

    Event leave(std::string_view name, Event::Reason reason, const std::string& successor, TimePoint now);
    Newest newest() const;
    /// Why a radar that is silent is gone, and who is announced in its place.
    std::pair<Event::Reason, std::string> whySilent(const Sighting& gone, const Newest& newest) const;
    std::map<int, std::vector<std::string>> holders(const Newest& newest) const;

    protocol::RadarTable m_table;
    State m_state;
    TimePoint m_localSince = TimePoint::min();
};

} // namespace radar::detail
