/// @file
/// What must hold of a display's sightings, beside its radar table.
#pragma once

#include "lan.h"

#include <RadarWatch/sightings.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

namespace simulation {

/// Properties: after a query the sightings are the radars of the table, but for a while after a full one,
/// which counts variants apart. Every holder of a shared host id has it. The events lead from nothing to what
/// there is.
class WatchOracle {
public:
    void took(const protocol::Announcement& announcement, std::uint32_t source, std::int64_t second,
              const protocol::RadarTable& table);
    /// After a query at @p second.
    void queried(std::int64_t second, const protocol::RadarTable& table);

private:
    void follow(const std::vector<radar::Event>& events);

    radar::detail::Sightings m_sightings;
    radar::detail::State m_told; // by the events
    std::int64_t m_full = 0;     // the second when a table was full last
};

} // namespace simulation
