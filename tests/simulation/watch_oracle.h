/// @file
/// What must hold of a display's sightings, beside its radar table.
#pragma once

#include "lan.h"

#include <RadarWatch/sightings.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

#include <algorithm>

namespace simulation {

/// Properties: after a query the sightings are the radars of the table, but for a while after a full one,
/// which counts variants apart. Every holder of a shared host id has it. The events lead from nothing to what
/// there is.
class WatchOracle {
public:
    void took(const protocol::Announcement& announcement, std::uint32_t source, std::int64_t second,
              const protocol::RadarTable& table) {
        follow(m_sightings.heard(announcement, source, moment(second)));
        if (table.entries().size() == protocol::RadarTable::kMaxNames)
            m_full = second;
    }
    /// After a query at @p second.
    void queried(std::int64_t second, const protocol::RadarTable& table) {
        follow(m_sightings.look(moment(second)));
        const radar::detail::State& state = m_sightings.state();
        require(difference(m_told, state, moment(second)).empty(),
                "events lead to the radars that there are");
        for (const auto& [id, holders] : state.conflicts) {
            require(holders.size() > 1, "a shared host id has several holders");
            for (const std::string& name : holders)
                require(state.radars.at(name).radar.hostId == id, "a holder of a shared host id has it");
        }
        if (second <= m_full + protocol::RadarTable::kSilence)
            return;
        for (const auto& [name, sighting] : state.radars)
            require(std::ranges::any_of(kVariants,
                                        [&, announced = name](auto variant) {
                                            return table.find(protocol::Name(announced, variant)) != nullptr;
                                        }),
                    "a radar that is watched is listed");
        for (const auto& [name, entry] : table.entries())
            require(state.radars.contains(name) || state.radars.contains(protocol::announcedName(name)),
                    "a radar that is listed is watched");
    }

private:
    static constexpr std::string_view kVariants[] = {"", protocol::Name::kUser, protocol::Name::kTcp};

    static radar::detail::TimePoint moment(std::int64_t second) {
        return radar::detail::TimePoint(std::chrono::seconds(second));
    }
    void follow(const std::vector<radar::Event>& events) {
        for (const radar::Event& event : events)
            m_told.apply(event);
    }

    radar::detail::Sightings m_sightings;
    radar::detail::State m_told; // by the events
    std::int64_t m_full = 0;     // the second when a table was full last
};

} // namespace simulation
