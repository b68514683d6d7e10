#include "plan.h"

#include <UdpSocket/udpsocket.h>

#include <cstdint>

namespace {

// Each host id from 16 upwards owns 16 groups and 32 ports, and the same offset counts into both.
constexpr int kFirstId = 16;
constexpr int kLastId = 63;
constexpr unsigned int kFirstGroup = 0xEC060723; // 236.6.7.35
constexpr int kFirstPort = 6003;
constexpr int kGroupsPerHost = 16;
constexpr int kPortsPerHost = 32;
constexpr int kImage = 0; // offset of stream 0; stream 1 follows by that step
constexpr int kImageStep = 3;
constexpr int kArpa = 6;
constexpr int kArpaStep = 3;
constexpr int kOriginal = 12;

constexpr int kHostOneArpaPort = 6688;

NetAddress inBlock(int hostId, int offset) {
    const int k = hostId - kFirstId;
    return {net::HtoNl(kFirstGroup + static_cast<unsigned int>(kGroupsPerHost * k + offset)),
            net::HtoNs(static_cast<std::uint16_t>(kFirstPort + kPortsPerHost * k + offset))};
}

NetAddress endpoint(const char* group, std::uint16_t port) {
    return {net::transAddr(group), net::HtoNs(port)};
}

} // namespace

int hostIdOf(const RadarAddress& record) {
    const int port = net::NtoHs(record.arpaStream.port);
    if (port == kHostOneArpaPort)
        return 1;
    const int distance = port - (kFirstPort + kArpa);
    const int id = kFirstId + distance / kPortsPerHost;
    return distance >= 0 && distance % kPortsPerHost == 0 && id <= kLastId ? id : 0;
}

StreamGroups streamGroups(int hostId, int stream) {
    if (hostId == 1 && stream == 0)
        return {endpoint("236.6.7.8", 6878), endpoint("236.6.7.18", kHostOneArpaPort),
                endpoint("236.6.7.7", 6677)};
    if (hostId == 1)
        return {endpoint("236.6.7.13", 6657), endpoint("236.6.7.12", 6660), endpoint("236.6.7.16", 6656)};
    return {inBlock(hostId, kImage + kImageStep * stream), inBlock(hostId, kArpa + kArpaStep * stream),
            inBlock(hostId, kOriginal + stream)};
}
