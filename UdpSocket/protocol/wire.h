/// @file
/// Every message of the radar protocols in one place: codes, groups, and where each field stands. Hosts write
/// by these tables and displays read by them; no offset appears anywhere else.
///
/// A message starts with two bytes, sub-code and class. Addresses and ports travel in network byte order.
#pragma once

#include <UdpSocket/protocol/address_plan.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace wire {

// --------------------------------------------------------------------------------------------------- groups

/// A multicast group with its port in host order.
struct Group {
    const char* address;
    unsigned short port;
    const char* use = ""; ///< in a few words, for people
};

inline constexpr Group kDiscovery{"236.6.7.5", 6878, "queries and announcements"};
inline constexpr Group kNegotiation{"236.6.7.4", 6768, "host ids"}; ///< and the reset command
inline constexpr Group kBeacon{"236.6.7.20", 6720, "presence beacons"};

// ---------------------------------------------------------------------------------------------------- codes

using Code = std::array<char, 2>;

inline constexpr Code kQuery{0x01, '\xB1'};
inline constexpr Code kAnnouncement{0x01, '\xB2'};
inline constexpr Code kReset{0x20, '\xA1'};
inline constexpr Code kTcpWanted{0x01, '\xC1'};   ///< display asks the radars to offer their TCP service
inline constexpr Code kTcpUnwanted{0x02, '\xC1'}; ///< display does not use it
inline constexpr Code kTcpReply{0x01, '\xC2'};    ///< framed on TCP, otherwise ignored
inline constexpr Code kProbe{0x01, '\xA1'};
inline constexpr Code kConfirm{0x02, '\xA1'};
inline constexpr Code kObjection{0x03, '\xA1'};

/// The marker that counts as a sign of life on the beacon group.
inline constexpr std::string_view kBeaconMarker = "aabbccdd";

constexpr std::string_view text(const Code& code) {
    return {code.data(), code.size()};
}

/// Whether a message has this code, whatever follows.
constexpr bool hasCode(std::string_view message, const Code& code) {
    return message.starts_with(text(code));
}

// -------------------------------------------------------------------------------------------- announcements

struct Field {
    std::size_t offset;
    std::size_t width;
};

/// Where an endpoint of a stream stands: 4 bytes of address, 2 of port.
struct EndpointPlace {
    plan::EndpointField field;
    int stream;
    std::size_t offset;
};

inline constexpr std::size_t kEndpointWidth = 6;
inline constexpr std::size_t kEndpointGap = 4; ///< zero bytes that a host leaves behind each endpoint

/// Fields of both announcements.
inline constexpr Field kCode{0, 2};
inline constexpr Field kName{2, 16}; ///< ends with a zero byte, or with the field
inline constexpr Field kRadarIp{18, 4};

/// Further fields of the long announcement, meaningful where kExtended is 1.
inline constexpr Field kExtended{22, 1};
inline constexpr Field kRadarNumber{23, 1};
inline constexpr Field kTcpOffered{30, 1};
inline constexpr Field kTcpKinds{67, 6}; ///< a kind for each of kTcpEndpoints, as the radar sees it
inline constexpr Field kUserValid{73, 1};

/// Endpoints of the radar's TCP service; all zero: none.
inline constexpr EndpointPlace kTcpEndpoints[] = {
    {&RadarAddress::imageStream, 0, 31}, {&RadarAddress::imageCtrl, 0, 37},
    {&RadarAddress::imageState, 0, 43},  {&RadarAddress::arpaStream, 0, 49},
    {&RadarAddress::arpaCtrl, 0, 55},    {&RadarAddress::arpaState, 0, 61},
};

/// Endpoints that replace the standard ones where kUserValid is set; port 0: keep the standard one.
inline constexpr EndpointPlace kUserEndpoints[] = {
    {&RadarAddress::imageStream, 0, 74},
    {&RadarAddress::imageState, 0, 80},
    {&RadarAddress::imageCtrl, 0, 114},
    {&RadarAddress::arpaStream, 0, 150},
};

/// Standard endpoints of the short announcement, which a host with one stream sends.
inline constexpr EndpointPlace kShortEndpoints[] = {
    {&RadarAddress::imageStream, 0, 88}, {&RadarAddress::imageCtrl, 0, 98},
    {&RadarAddress::imageState, 0, 108}, {&RadarAddress::arpaStream, 0, 124},
    {&RadarAddress::arpaCtrl, 0, 134},   {&RadarAddress::arpaState, 0, 144},
};

/// Standard endpoints of the long announcement, which a host with two streams sends.
inline constexpr EndpointPlace kLongEndpoints[] = {
    {&RadarAddress::imageStream, 0, 88}, {&RadarAddress::imageCtrl, 0, 98},
    {&RadarAddress::imageState, 0, 108}, {&RadarAddress::imageStream, 1, 124},
    {&RadarAddress::imageCtrl, 1, 134},  {&RadarAddress::imageState, 1, 144},
    {&RadarAddress::arpaStream, 0, 160}, {&RadarAddress::arpaCtrl, 0, 170},
    {&RadarAddress::arpaState, 0, 180},  {&RadarAddress::arpaStream, 1, 196},
    {&RadarAddress::arpaCtrl, 1, 206},   {&RadarAddress::arpaState, 1, 216},
};

struct Layout {
    std::size_t length; ///< of the whole datagram
    std::span<const EndpointPlace> endpoints;
};

inline constexpr Layout kShortAnnouncement{150, kShortEndpoints};
inline constexpr Layout kLongAnnouncement{222, kLongEndpoints};

/// Length of the kTcpReply message on a TCP connection.
inline constexpr std::size_t kTcpReplyLength = 38;

static_assert(std::ranges::is_sorted(kShortEndpoints, {}, &EndpointPlace::offset) &&
                  std::rbegin(kShortEndpoints)->offset + kEndpointWidth == kShortAnnouncement.length,
              "the last endpoint ends the short announcement");
static_assert(std::ranges::is_sorted(kLongEndpoints, {}, &EndpointPlace::offset) &&
                  std::rbegin(kLongEndpoints)->offset + kEndpointWidth == kLongAnnouncement.length,
              "the last endpoint ends the long announcement");
static_assert(kTcpKinds.width == std::size(kTcpEndpoints) &&
                  std::rbegin(kTcpEndpoints)->offset + kEndpointWidth == kTcpKinds.offset,
              "one kind for each TCP endpoint, behind them");

/// The endpoint at a place of a message that is long enough to hold it.
inline NetAddress endpointAt(std::string_view message, const EndpointPlace& place) {
    NetAddress endpoint;
    static_assert(sizeof endpoint == kEndpointWidth);
    std::memcpy(&endpoint, message.data() + place.offset, sizeof endpoint);
    return endpoint;
}

/// The network-order address at a field of a message that is long enough to hold it.
inline std::uint32_t addressAt(std::string_view message, const Field& field) {
    std::uint32_t address;
    std::memcpy(&address, message.data() + field.offset, sizeof address);
    return address;
}

/// One byte of a message that is long enough to hold it.
inline std::uint8_t byteAt(std::string_view message, const Field& field, std::size_t index = 0) {
    return static_cast<std::uint8_t>(message[field.offset + index]);
}

// ---------------------------------------------------------------------------------------------- negotiation

/// Probe, confirm and objection: code, host id, and a byte that is always 1.
struct Negotiation {
    Code code;
    std::uint8_t hostId;
    std::uint8_t one = 1;
};
static_assert(sizeof(Negotiation) == 4 && alignof(Negotiation) == 1 && offsetof(Negotiation, hostId) == 2 &&
              offsetof(Negotiation, one) == 3);

inline std::string_view text(const Negotiation& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

} // namespace wire
