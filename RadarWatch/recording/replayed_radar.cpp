#include <RadarWatch/recording/replayed_radar.h>

#include <UdpSocket/protocol/announcement.h>

#include <algorithm>

namespace radar::recording {

namespace {

// Displays ask once a second: one that asks at other moments than those in the recording hears it as often.
constexpr Time kBetweenQueries = std::chrono::seconds(1);

} // namespace

ReplayedRadar::ReplayedRadar(const Contents::Radar& radar, std::uint8_t asId, std::uint64_t seed,
                             std::chrono::milliseconds objection)
    : m_radar(&radar), m_asId(asId), m_draw(seed), m_objection(objection), m_negotiation(m_draw, objection),
      m_announcement(&radar.changes.front().announcement), m_endpoints(endpointsOf(*m_announcement)) {}

std::uint8_t ReplayedRadar::claimed(Time time) const {
    const std::uint8_t recorded = protocol::announcedHostId(m_radar->announcementAt(time));
    return m_asId != 0 && recorded != 0 ? m_asId : recorded;
}

std::uint8_t ReplayedRadar::hostId() const {
    return hostIdAt(m_position); // the next one may be claimed already
}

std::uint8_t ReplayedRadar::hostIdAt(Time time) const {
    const std::uint8_t id = claimed(time);
    const auto held = m_held.find(id);
    return held == m_held.end() ? id : held->second;
}

bool ReplayedRadar::isPresent() const {
    return std::ranges::any_of(m_radar->presences, [this](const Contents::Radar::Presence& presence) {
        return m_position >= presence.first && m_position <= presence.last + kBetweenQueries;
    });
}

ReplayedRadar::Output ReplayedRadar::note(Output output) {
    if (output.loggedIn)
        m_held[m_claim] = *output.loggedIn;
    return output;
}

ReplayedRadar::Output ReplayedRadar::advance(Time position, Time lead, TimePoint now) {
    m_position = position;
    if (const std::string& announcement = m_radar->announcementAt(position);
        &announcement != m_announcement) {
        m_announcement = &announcement;
        m_endpoints = endpointsOf(announcement);
    }
    const Time ahead = position + lead;
    const std::uint8_t wanted = ahead < m_radar->presences.front().first ? std::uint8_t{0} : claimed(ahead);
    const bool isClaiming = m_claim != 0 && !m_held.contains(m_claim); // which another claim would break off
    if (wanted != 0 && wanted != m_claim && !isClaiming) { // the first id, or the recorded host took another
        m_claim = wanted;
        m_held.erase(wanted);
        m_negotiation = protocol::Negotiation(m_draw, m_objection);
        m_negotiation.login(wanted);
    }
    return note(m_negotiation.advance(now));
}

ReplayedRadar::Output ReplayedRadar::receive(std::string_view datagram) {
    return note(m_negotiation.receive(datagram));
}

std::string ReplayedRadar::answer() const {
    if (!isPresent())
        return "";
    const std::uint8_t id = claimed(m_position);
    if (id == 0)
        return *m_announcement;
    return m_held.contains(id) ? protocol::renumbered(*m_announcement, hostId()) : "";
}

std::optional<NetAddress> ReplayedRadar::target(const NetAddress& endpoint, Time time) const {
    const std::string& announcement = m_radar->announcementAt(time);
    const bool isAtPosition = &announcement == m_announcement;
    const auto others = isAtPosition ? std::vector<RadarEndpointPlace>() : endpointsOf(announcement);
    for (const RadarEndpointPlace& place : isAtPosition ? m_endpoints : others)
        if (place.endpoint.ip == endpoint.ip && place.endpoint.port == endpoint.port) {
            const std::uint8_t recorded = protocol::announcedHostId(announcement);
            return recorded == 0 ? endpoint : plan::renumbered(endpoint, recorded, hostIdAt(time));
        }
    return std::nullopt;
}

} // namespace radar::recording
