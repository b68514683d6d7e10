/// @file
/// The fixed plan of multicast groups and ports: one table, read by hosts (what they announce) and by
/// displays (what they compute and what they hand out by default).
///
/// A host id is 1, or 16 to 63. Each id from 16 upwards owns a block of 16 consecutive groups and one of 32
/// consecutive ports; the same offset counts into both. Host id 1 has groups and ports of its own.
#pragma once

#include <UdpSocket/radaraddress.h>

#include <bit>
#include <cstdint>

namespace plan {

static_assert(std::endian::native == std::endian::little, "records are converted for little-endian machines");

/// An endpoint in host byte order, for arithmetic.
struct Endpoint {
    std::uint32_t ip;
    std::uint16_t port;

    /// Group and port moved by the same offset: an octet that passes 255 carries, a port wraps at 16 bits.
    constexpr Endpoint operator+(std::uint32_t offset) const {
        return {ip + offset, static_cast<std::uint16_t>(port + offset)};
    }
    /// The same endpoint in network byte order.
    constexpr operator NetAddress() const { return {__builtin_bswap32(ip), __builtin_bswap16(port)}; }
};

constexpr std::uint32_t ipv4(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

/// One of the seven endpoints of a RadarAddress.
using EndpointField = RadarEndpoint RadarAddress::*;

/// One endpoint of one stream of a host.
struct Row {
    EndpointField field;
    int stream;
    std::uint32_t offset;      ///< into the block of a host id from 16 upwards, or of a dedicated number
    Endpoint hostOne;          ///< what host id 1 uses
    std::uint16_t displayPort; ///< its port in the display's default record, 0 where it is not part of that
};

/// Host id 1 announces two ports, image stream 6878 and ARPA state 6889, that differ from the display's
/// default record (6678 and 6689). Both are right: installed equipment relies on them.
inline constexpr Row kRows[] = {
    // field, stream, offset, host id 1, display
    {&RadarAddress::imageStream, 0, 0, {ipv4(236, 6, 7, 8), 6878}, 6678},
    {&RadarAddress::imageCtrl, 0, 1, {ipv4(236, 6, 7, 10), 6680}, 6680},
    {&RadarAddress::imageState, 0, 2, {ipv4(236, 6, 7, 9), 6679}, 6679},
    {&RadarAddress::imageStream, 1, 3, {ipv4(236, 6, 7, 13), 6657}, 0},
    {&RadarAddress::imageCtrl, 1, 4, {ipv4(236, 6, 7, 14), 6658}, 0},
    {&RadarAddress::imageState, 1, 5, {ipv4(236, 6, 7, 15), 6659}, 0},
    {&RadarAddress::arpaStream, 0, 6, {ipv4(236, 6, 7, 18), 6688}, 6688},
    {&RadarAddress::arpaCtrl, 0, 7, {ipv4(236, 6, 7, 20), 6690}, 6690},
    {&RadarAddress::arpaState, 0, 8, {ipv4(236, 6, 7, 19), 6889}, 6689},
    {&RadarAddress::arpaStream, 1, 9, {ipv4(236, 6, 7, 12), 6660}, 0},
    {&RadarAddress::arpaCtrl, 1, 10, {ipv4(236, 6, 7, 13), 6661}, 0},
    {&RadarAddress::arpaState, 1, 11, {ipv4(236, 6, 7, 14), 6862}, 0},
    {&RadarAddress::imageOriginal, 0, 12, {ipv4(236, 6, 7, 7), 6677}, 6677},
    {&RadarAddress::imageOriginal, 1, 13, {ipv4(236, 6, 7, 16), 6656}, 0},
};

/// Whether hosts may use this id.
constexpr bool isHostId(std::uint8_t id) {
    return id == 1 || (id >= 16 && id <= 63);
}

/// What a host announces. @param id a host id; any other id is treated as 1
NetAddress announcedEndpoint(std::uint8_t id, EndpointField field, int stream);

/// The record handed out for "Default": every endpoint UDP, no address of the radar's own.
const RadarAddress& defaultRecord();

/// The record of a dedicated number's first stream.
RadarAddress dedicatedRecord(std::uint8_t number);

/// First endpoint of the block of dedicated number @p n.
NetAddress getDedicatedBaseEp(std::uint8_t n);

/// First of the ten consecutive information-device endpoints of a host id; ids outside 16 to 63 share one
/// list.
NetAddress getInfoDevBaseEp(std::uint8_t id);

/// The original image endpoint of stream 0 or 1; ids outside 16 to 63 share one for each stream.
NetAddress getOriginalImageEp(std::uint8_t id, std::uint8_t stream);

/// Writes the ten information-device endpoints that follow @p base, one address and one port apart.
void fillInfoDevices(InfoDeviceEndpoints& devices, const NetAddress& base);

/// What the ARPA stream port of stream 0 says of its host.
struct HostNumber {
    std::uint8_t id;       ///< 1, or 16 to 63; 0: the port lies behind the last host's
    bool portMatches;      ///< false: the port is no host's, and the id is that of the block it lies in
    std::uint8_t computed; ///< the id before its range was looked at
};

/// @param port host order
HostNumber hostNumber(std::uint16_t port);

/// The host id behind a radar's first stream; 0: the radar is not in the plan.
std::uint8_t hostIdOf(const RadarAddress& record);

/// The endpoint of host id @p to that has the place of @p endpoint in the plan of host id @p from; what has
/// none there stays as it is. The endpoints that displays compute are in the plan, too.
NetAddress renumbered(const NetAddress& endpoint, std::uint8_t from, std::uint8_t to);

/// Of a network-order endpoint or record field.
inline std::uint16_t hostOrderPort(const NetAddress& endpoint) {
    return __builtin_bswap16(endpoint.port);
}

} // namespace plan
