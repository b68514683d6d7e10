#include "listing.h"

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>

#include <algorithm>
#include <utility>

using protocol::Name;

std::vector<radar::Radar> entriesOf(const radar::Radar& radar) {
    std::vector<radar::Radar> entries;
    const auto add = [&](std::string_view suffix, int hostId, std::vector<RadarAddress> streams) {
        entries.push_back({.name = radar.name + std::string(suffix),
                           .hostId = hostId,
                           .source = radar.source,
                           .streams = std::move(streams),
                           .tcp = {},
                           .age = radar.age});
    };
    if (!radar.streams.empty())
        add(radar.user ? Name::kUser : "", radar.hostId, radar.streams);
    if (radar.tcp)
        add(Name::kTcp, plan::hostIdOf(*radar.tcp), {*radar.tcp});
    return entries;
}

std::vector<radar::Radar> entriesOf(const std::vector<radar::Radar>& radars) {
    std::vector<radar::Radar> entries;
    for (const radar::Radar& radar : radars)
        std::ranges::move(entriesOf(radar), std::back_inserter(entries));
    std::ranges::sort(entries, {}, &radar::Radar::name);
    return entries;
}

SharedIds sharedIds(const std::vector<radar::Radar>& entries) {
    SharedIds holders;
    for (const radar::Radar& entry : entries)
        if (entry.hostId != 0)
            holders[entry.hostId].emplace(protocol::announcedName(entry.name));
    std::erase_if(holders, [](const auto& holder) { return holder.second.size() < 2; });
    return holders;
}
