/// @file
/// Events as tests read them.
#pragma once

#include "../test.h"
#include <RadarWatch/radarwatch.h>

#include <UdpSocket/udpsocket.h>

/// "North appeared, 16 at 10.1.0.1", "North left, Renamed: South", "16: North South", "local 10.1.0.9
/// (eth0)", "local changed 10.1.0.9 (eth1)"
inline std::string text(const radar::Event& event) {
    using Kind = radar::Event::Kind;
    static constexpr const char* kReasons[] = {"None",    "Silent",       "Renumbered",
                                               "Renamed", "LocalAddress", "Displaced"};
    const radar::Radar& radar = event.radar;
    const std::string about = ", " + std::to_string(radar.hostId) + " at " + net::transAddr(radar.source);
    std::string result;
    switch (event.kind) {
    case Kind::Appeared:
        result = radar.name + " appeared" + about +
                 (event.changes == 0 ? "" : ", bits " + std::to_string(event.changes));
        break;
    case Kind::Changed:
        result = radar.name + " changed" + about + ", bits " + std::to_string(event.changes);
        break;
    case Kind::Left:
        result = radar.name + " left, " + kReasons[static_cast<int>(event.reason)] +
                 (event.successor.empty() ? "" : ": " + event.successor);
        break;
    case Kind::Conflict:
    case Kind::ConflictEnded:
        result = std::to_string(event.hostId) + (event.kind == Kind::Conflict ? " shared:" : " ended:");
        for (const std::string& name : event.holders)
            result += " " + name;
        break;
    case Kind::LocalFound:
    case Kind::LocalChanged:
        result = std::string(event.kind == Kind::LocalFound ? "local " : "local changed ") +
                 net::transAddr(event.local.address) + " (" + event.local.interface + ")";
        break;
    case Kind::LocalLost:
        result = std::string("lost ") + net::transAddr(event.previous);
        break;
    }
    return event.merged == 0 ? result : result + ", merged " + std::to_string(event.merged);
}
