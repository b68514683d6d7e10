/// @file
/// What the keys of profile.ini mean, each by its own function. Every call reads the file again when it has
/// changed. Addresses are what net::transAddr makes of the text, in network order. Any thread.
#pragma once

#include <string>

namespace net::settings {

/// [Radar] IP: the fixed radar; 0: radars are discovered by multicast.
unsigned int radarAddress();

/// [Radar] TCPService: whether the radars' TCP service is used where they offer it.
bool tcpService();

/// [Local] NetName: part of the name of the interface that leads to the radars; empty: not given.
std::string netName();

/// [Local] IP, as it stands in the file and as an address; 0: not given.
struct LocalAddress {
    std::string text;
    unsigned int ip;
};
LocalAddress localAddress();

/// [Local] MulticastLoop: whether this computer hears its own multicast.
bool multicastLoop();

} // namespace net::settings
