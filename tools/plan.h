/// @file
/// What the tool itself has to know of the plan of groups and ports; everything else it hears.
#pragma once

#include <UdpSocket/radaraddress.h>

/// The host id behind a radar's first stream; 0: the radar is not in the plan.
int hostIdOf(const RadarAddress& record);

/// Where a host sends one stream's data.
struct StreamGroups {
    NetAddress image;
    NetAddress arpa;
    NetAddress original;
};

/// @param hostId 1, or 16 to 63
/// @param stream 0 or 1
StreamGroups streamGroups(int hostId, int stream);
