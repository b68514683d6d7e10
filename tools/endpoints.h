/// @file
/// The endpoints of a stream by name, on the command line, in tables and in JSON.
#pragma once

#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/radaraddress.h>

#include <string>

struct EndpointName {
    const char* name; ///< on the command line
    const char* key;  ///< in JSON
    RadarEndpoint RadarAddress::*endpoint;
};

inline constexpr EndpointName kEndpointNames[] = {
    {"image", "image", &RadarAddress::imageStream},
    {"image-control", "imageControl", &RadarAddress::imageCtrl},
    {"image-state", "imageState", &RadarAddress::imageState},
    {"arpa", "arpa", &RadarAddress::arpaStream},
    {"arpa-control", "arpaControl", &RadarAddress::arpaCtrl},
    {"arpa-state", "arpaState", &RadarAddress::arpaState},
    {"original", "original", &RadarAddress::imageOriginal},
};

/// Whether a radar announces this endpoint at all.
inline bool isAnnounced(const NetAddress& endpoint) {
    return endpoint.ip != 0 && endpoint.port != 0;
}

/// How the display reaches an endpoint of that kind.
inline const char* kindText(unsigned char kind) {
    switch (kind) {
    case 0:
        return "udp";
    case 1:
        return "tcp-server";
    case 2:
        return "tcp-client";
    default:
        return "unknown";
    }
}

/// "236.6.7.8:6678", or "-" for one that is not announced.
std::string endpointText(const NetAddress& endpoint);
std::string endpointText(const wire::Group& group);
