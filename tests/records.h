/// @file
/// Endpoints and records as tests write and read them.
#pragma once

#include "test.h"
#include <UdpSocket/udpsocket.h>

/// "236.6.7.8:6678"
inline std::string text(const NetAddress& endpoint) {
    return net::transAddr(endpoint.ip) + (":" + std::to_string(net::NtoHs(endpoint.port)));
}

inline NetAddress endpoint(const char* group, unsigned short port) {
    return {net::transAddr(group), net::HtoNs(port)};
}

/// The bytes of a record, for comparisons.
inline std::string bytes(const RadarAddress& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}
