#include <RadarWatch/sightings.h>

#include <UdpSocket/protocol/address_plan.h>

#include <algorithm>

namespace radar::detail {

namespace {

using Kind = Event::Kind;
using Reason = Event::Reason;

constexpr auto kStillOnTheWay = std::chrono::seconds(2); // announcements of a host that is told to renumber

std::int64_t seconds(TimePoint now) {
    return std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count();
}

/// By the standard endpoints, which the user's do not touch.
int hostIdOf(const protocol::Announcement& announcement) {
    RadarAddress standard{};
    standard.arpaStream.port = NetAddress(plan::Endpoint{0, announcement.arpaPort}).port;
    return plan::hostIdOf(standard);
}

Radar radarOf(const protocol::Announcement& announcement, std::uint32_t source) {
    Radar radar;
    radar.name = announcement.name.view();
    radar.hostId = hostIdOf(announcement);
    radar.source = source;
    for (std::size_t i = 0; i < announcement.listingCount; ++i) {
        const auto& [name, record] = announcement.listings[i];
        const std::string_view variant = name.view().substr(radar.name.size());
        if (variant == protocol::Name::kTcp) {
            radar.tcp = record;
            continue;
        }
        radar.user = variant == protocol::Name::kUser;
        radar.streams.push_back(record);
        if (!announcement.secondStream)
            continue;
        radar.streams.push_back(*announcement.secondStream);
        if (radar.hostId == 0) // it is not announced, and no plan has it
            radar.streams.back().imageOriginal = {};
    }
    return radar;
}

} // namespace

std::vector<Event> Sightings::heard(const protocol::Announcement& announcement, std::uint32_t source,
                                    TimePoint now) {
    std::vector<Event> events;
    if (announcement.listingCount == 0)
        return events;
    const std::string_view name = announcement.name;
    const auto update = m_table.update(name, announcement.listings[0].record, source, seconds(now));
    if (update.change == protocol::RadarTable::Change::Refused)
        return events;
    if (!update.displaced.empty() && m_state.radars.contains(update.displaced))
        events.push_back(leave(update.displaced, Reason::Displaced, {}, now));

    Radar radar = radarOf(announcement, source);
    const auto [known, isNew] = m_state.radars.try_emplace(std::string(name));
    Sighting& sighting = known->second;
    const unsigned changes = isNew ? 0 : changesBetween(sighting.radar, radar);
    sighting.radar = std::move(radar);
    sighting.heard = now;
    if (isNew)
        sighting.firstHeard = now;
    if ((changes & Event::HostId) != 0)
        sighting.toldToRenumber = TimePoint::min();
    if (isNew || changes != 0)
        events.emplace_back(radarEvent(isNew ? Kind::Appeared : Kind::Changed, sighting, now)).changes =
            changes;
    return events;
}

std::vector<Event> Sightings::setLocal(const LocalAddress& local, TimePoint now) {
    LocalAddress& known = m_state.local;
    if (local.address == known.address && local.interface == known.interface)
        return {};
    std::vector<Event> events{localEvent(known, local, now)};
    if (known.address != 0)
        m_localSince = now;
    known = local;
    return events;
}

void Sightings::renumbered(std::string_view name, TimePoint now) {
    if (const auto radar = m_state.radars.find(name); radar != m_state.radars.end())
        radar->second.toldToRenumber = now;
}

std::vector<Event> Sightings::look(TimePoint now) {
    std::vector<Event> events;
    m_table.expire(seconds(now));
    std::vector<std::string> silent; // by what the table has: memory may have run out in the middle before
    for (const auto& [name, sighting] : m_state.radars)
        if (m_table.find(name) == nullptr)
            silent.push_back(name);
    const Newest newest = this->newest();
    for (const std::string& name : silent) {
        const auto [reason, successor] = whySilent(m_state.radars.find(name)->second, newest);
        events.push_back(leave(name, reason, successor, now));
    }

    auto held = holders(newest);
    for (auto& [id, names] : held) {
        const auto known = m_state.conflicts.find(id);
        if (names.size() > 1 ? known == m_state.conflicts.end() || known->second != names
                             : known != m_state.conflicts.end())
            events.push_back(conflictEvent(id, names, now));
    }
    for (const auto& [id, names] : m_state.conflicts)
        if (!held.contains(id))
            events.push_back(conflictEvent(id, {}, now));
    std::erase_if(held, [](const auto& entry) { return entry.second.size() < 2; });
    m_state.conflicts = std::move(held);
    return events;
}

Event Sightings::leave(std::string_view name, Reason reason, const std::string& successor, TimePoint now) {
    const auto gone = m_state.radars.find(name);
    Event event = radarEvent(Kind::Left, gone->second, now);
    event.reason = reason;
    event.successor = successor;
    m_state.radars.erase(gone);
    return event;
}

Sightings::Newest Sightings::newest() const {
    Newest newest;
    for (const auto& [name, sighting] : m_state.radars) {
        if (m_table.find(name) == nullptr)
            continue;
        const auto [known, isFirst] =
            newest.try_emplace({sighting.radar.source, sighting.radar.hostId}, &sighting);
        if (!isFirst && sighting.firstHeard > known->second->firstHeard)
            known->second = &sighting;
    }
    return newest;
}

std::pair<Reason, std::string> Sightings::whySilent(const Sighting& gone, const Newest& newest) const {
    if (gone.heard < m_localSince)
        return {Reason::LocalAddress, {}};
    std::pair<Reason, std::string> why{Reason::Silent, {}};
    if (gone.heard < gone.toldToRenumber + kStillOnTheWay)
        why.first = Reason::Renumbered;
    const std::uint32_t source = gone.radar.source;
    for (auto other = newest.lower_bound({source, 0}); other != newest.end() && other->first.first == source;
         ++other) {
        const auto& [from, successor] = *other;
        if (successor->firstHeard <= gone.heard)
            continue;
        const bool sameId = from.second == gone.radar.hostId;
        why = {sameId ? Reason::Renamed : Reason::Renumbered, successor->radar.name};
        if (sameId)
            break;
    }
    return why;
}

std::map<int, std::vector<std::string>> Sightings::holders(const Newest& newest) const {
    std::map<int, std::vector<std::string>> holders;
    for (const auto& [name, sighting] : m_state.radars) {
        const auto found = newest.find({sighting.radar.source, sighting.radar.hostId});
        if (sighting.radar.hostId == 0 || found == newest.end() || found->second->firstHeard > sighting.heard)
            continue;
        if (auto& names = holders[sighting.radar.hostId]; names.size() < kMaxHolders)
            names.push_back(name);
    }
    return holders;
}

} // namespace radar::detail
