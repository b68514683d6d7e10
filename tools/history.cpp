#include "history.h"

#include "table.h"

#include <fstream>
#include <set>
#include <string_view>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

constexpr auto kKept = 60s;

bool hasCarrier(const std::string& interface) {
    std::ifstream file("/sys/class/net/" + interface.substr(0, interface.find(':')) + "/carrier");
    int carrier = 0;
    return file >> carrier && carrier == 1;
}

/// Looked at in this order: what explains the most comes first.
std::string reason(const Radar& gone, const std::vector<Radar>& present, unsigned int localIp) {
    const std::string interface = net::localIfaName(localIp);
    if (interface.empty())
        return "this computer has no address " + std::string(net::transAddr(localIp)) + " any more";
    if (!hasCarrier(interface))
        return printable(interface) + " lost its carrier";
    for (const Radar& radar : present)
        if (!gone.source.empty() && radar.source == gone.source && radar.hostId == gone.hostId)
            return gone.source + " now announces " + printable(radar.name);
    return (gone.source.empty() ? "it" : gone.source) + " has not answered for 8 s" +
           (present.empty() ? ", and nobody else does" : ", others do");
}

} // namespace

std::vector<Event> History::update(const std::vector<Radar>& radars, unsigned int localIp) {
    const auto now = Clock::now();
    std::vector<Event> events;
    for (const Radar& radar : radars) {
        const auto heard = now - radar.age.value_or(0ms);
        const auto known = m_sightings.find(radar.name);
        if (known == m_sightings.end() || !known->second.whyLeft.empty()) {
            const Sighting& sighting = m_sightings[radar.name] = {radar, heard, heard};
            events.push_back({Event::Kind::Appeared, sighting});
            continue;
        }
        Sighting& sighting = known->second;
        const bool changed = summary(sighting.radar) != summary(radar);
        sighting.radar = radar;
        sighting.last = heard;
        if (changed)
            events.push_back({Event::Kind::Changed, sighting});
    }
    std::set<std::string_view> present;
    for (const Radar& radar : radars)
        present.insert(radar.name);
    for (auto& [name, sighting] : m_sightings) {
        if (!sighting.whyLeft.empty() || present.contains(name))
            continue;
        sighting.whyLeft = reason(sighting.radar, radars, localIp);
        sighting.left = now;
        events.push_back({Event::Kind::Left, sighting});
    }
    std::erase_if(m_sightings, [now](const auto& entry) {
        return !entry.second.whyLeft.empty() && now - entry.second.left > kKept;
    });
    return events;
}
