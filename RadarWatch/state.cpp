#include <RadarWatch/state.h>

#include <UdpSocket/protocol/announcement.h>

#include <cstring>

namespace radar::detail {

namespace {

using Kind = Event::Kind;

bool same(const RadarAddress& one, const RadarAddress& other) {
    return std::memcmp(&one, &other, sizeof one) == 0; // packed: no byte is padding
}

} // namespace

void State::apply(const Event& event) {
    switch (event.kind) {
    case Kind::Appeared:
    case Kind::Changed:
        radars.insert_or_assign(event.radar.name, Sighting{event.radar, event.when - event.radar.age});
        break;
    case Kind::Left:
        radars.erase(event.radar.name);
        break;
    case Kind::Conflict:
        conflicts.insert_or_assign(event.hostId, event.holders);
        break;
    case Kind::ConflictEnded:
        conflicts.erase(event.hostId);
        break;
    case Kind::LocalFound:
    case Kind::LocalChanged:
    case Kind::LocalLost:
        local = event.local;
        break;
    }
}

const Sighting* State::find(std::string_view name) const {
    if (const auto found = radars.find(name); found != radars.end())
        return &found->second;
    const std::string_view announced = protocol::announcedName(name);
    const auto found = radars.find(announced);
    if (found == radars.end() || announced == name)
        return nullptr;
    const Radar& radar = found->second.radar;
    const bool has = name.ends_with(protocol::Name::kUser) ? radar.user : radar.tcp.has_value();
    return has ? &found->second : nullptr;
}

unsigned changesBetween(const Radar& before, const Radar& now) {
    unsigned changes = 0;
    if (before.hostId != now.hostId)
        changes |= Event::HostId;
    if (before.source != now.source)
        changes |= Event::Source;
    if (before.streams.size() != now.streams.size())
        changes |= Event::Streams;
    for (std::size_t i = 0; i < before.streams.size() && i < now.streams.size(); ++i)
        if (!same(before.streams[i], now.streams[i]))
            changes |= Event::Endpoints;
    if (before.user != now.user || before.tcp.has_value() != now.tcp.has_value())
        changes |= Event::Variants;
    if (before.tcp && now.tcp && !same(*before.tcp, *now.tcp))
        changes |= Event::Tcp;
    return changes;
}

Event radarEvent(Kind kind, const Sighting& sighting, TimePoint now) {
    Event event;
    event.kind = kind;
    event.radar = sighting.radar;
    event.radar.age = std::chrono::duration_cast<std::chrono::milliseconds>(now - sighting.heard);
    event.when = now;
    return event;
}

Event conflictEvent(int hostId, const std::vector<std::string>& holders, TimePoint now) {
    Event event;
    event.kind = holders.size() > 1 ? Kind::Conflict : Kind::ConflictEnded;
    event.hostId = hostId;
    event.holders = holders;
    event.when = now;
    return event;
}

Event localEvent(const LocalAddress& before, const LocalAddress& after, TimePoint now) {
    Event event;
    event.kind = before.address == 0  ? Kind::LocalFound
                 : after.address == 0 ? Kind::LocalLost
                                      : Kind::LocalChanged;
    event.local = after;
    event.previous = before.address;
    event.when = now;
    return event;
}

std::vector<Event> difference(const State& from, const State& to, TimePoint now) {
    std::vector<Event> events;
    if (from.local.address != to.local.address || from.local.interface != to.local.interface)
        events.push_back(localEvent(from.local, to.local, now));
    for (const auto& [name, sighting] : from.radars)
        if (!to.radars.contains(name))
            events.push_back(radarEvent(Kind::Left, sighting, now));
    for (const auto& [name, sighting] : to.radars) {
        const auto known = from.radars.find(name);
        const bool isNew = known == from.radars.end();
        const unsigned changes = isNew ? 0 : changesBetween(known->second.radar, sighting.radar);
        if (isNew || changes != 0)
            events.emplace_back(radarEvent(isNew ? Kind::Appeared : Kind::Changed, sighting, now)).changes =
                changes;
    }
    for (const auto& [id, holders] : from.conflicts)
        if (!to.conflicts.contains(id))
            events.push_back(conflictEvent(id, {}, now));
    for (const auto& [id, holders] : to.conflicts)
        if (const auto known = from.conflicts.find(id);
            known == from.conflicts.end() || known->second != holders)
            events.push_back(conflictEvent(id, holders, now));
    return events;
}

} // namespace radar::detail
