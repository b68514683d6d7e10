#include "watch_oracle.h"

namespace simulation {

namespace {

using protocol::RadarTable;
using radar::detail::State;

radar::detail::TimePoint moment(std::int64_t second) {
    return radar::detail::TimePoint(std::chrono::seconds(second));
}

bool lists(const RadarTable& table, const std::string& name) {
    return table.find(name) != nullptr ||
           table.find(protocol::Name(name, protocol::Name::kUser)) != nullptr ||
           table.find(protocol::Name(name, protocol::Name::kTcp)) != nullptr;
}

bool knows(const State& state, const std::string& listed) {
    return state.radars.contains(listed) || state.radars.contains(protocol::announcedName(listed));
}

} // namespace

void WatchOracle::took(const protocol::Announcement& announcement, std::uint32_t source, std::int64_t second,
                       const RadarTable& table) {
    follow(m_sightings.heard(announcement, source, moment(second)));
    if (table.entries().size() == RadarTable::kMaxNames)
        m_full = second;
}

void WatchOracle::queried(std::int64_t second, const RadarTable& table) {
    follow(m_sightings.look(moment(second)));
    const State& state = m_sightings.state();
    require(difference(m_told, state, moment(second)).empty(), "events lead to the radars that there are");
    for (const auto& [id, holders] : state.conflicts) {
        require(holders.size() > 1, "a shared host id has several holders");
        for (const std::string& name : holders)
            require(state.radars.at(name).radar.hostId == id, "a holder of a shared host id has it");
    }
    if (second <= m_full + RadarTable::kSilence)
        return;
    for (const auto& [name, sighting] : state.radars)
        require(lists(table, name), "a radar that is watched is listed");
    for (const auto& [name, entry] : table.entries())
        require(knows(state, name), "a radar that is listed is watched");
}

void WatchOracle::follow(const std::vector<radar::Event>& events) {
    for (const radar::Event& event : events)
        m_told.apply(event);
}

} // namespace simulation
