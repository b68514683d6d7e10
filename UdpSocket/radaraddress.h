/// @file
/// The two records that carry network endpoints through the system.
///
/// Both are packed plain values: copy them freely. Every address and port in them is in network byte order;
/// net::transAddr and net::NtoHs turn them into text and host order.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)

/// One IPv4 endpoint, 6 bytes.
struct NetAddress {
    std::uint32_t ip;   ///< IPv4 address, network byte order
    std::uint16_t port; ///< port, network byte order
};

/// One endpoint with the kind of socket that serves it, 7 bytes: a NetAddress and one byte.
struct RadarEndpoint {
    std::uint32_t ip;   ///< IPv4 address, network byte order
    std::uint16_t port; ///< port, network byte order
    std::uint8_t type;  ///< 0 = UDP, 1 = TCP server, 2 = TCP client

    /// The endpoint without its kind, as senders, receivers and TCP clients take it.
    operator NetAddress() const { return NetAddress{ip, port}; }
};

/// The group endpoints of a radar's ten information devices, 61 bytes. Entries have no kind byte; one unused
/// byte, always zero, stands between the second and the third.
struct InfoDeviceEndpoints {
    NetAddress first[2]; ///< the first two devices
    std::uint8_t unused; ///< zero
    NetAddress rest[8];  ///< the third to the tenth

    /// The endpoint of one device, by index from 0.
    NetAddress& operator[](std::size_t index) { return index < 2 ? first[index] : rest[index - 2]; }
    /// The endpoint of one device, by index from 0.
    const NetAddress& operator[](std::size_t index) const {
        return index < 2 ? first[index] : rest[index - 2];
    }
    static std::size_t size() { return 10; } ///< of devices
};

/// The complete endpoint set of one radar stream, 116 bytes.
struct RadarAddress {
    std::uint32_t head;        ///< the radar's own IPv4 address as it announced it, or 0; network byte order
    std::uint8_t isMulti;      ///< non-zero: a dedicated (numbered) address set
    std::uint8_t multiNum;     ///< number of the dedicated address set
    RadarEndpoint imageStream; ///< radar image
    RadarEndpoint imageCtrl;   ///< commands to the image side
    RadarEndpoint imageState;  ///< reports of the image side
    RadarEndpoint arpaStream;  ///< ARPA targets
    RadarEndpoint arpaCtrl;    ///< commands to the ARPA side
    RadarEndpoint arpaState;   ///< reports of the ARPA side
    RadarEndpoint imageOriginal; ///< original (unprocessed) image
    InfoDeviceEndpoints infoDev; ///< information devices
};

#pragma pack(pop)

static_assert(sizeof(NetAddress) == 6 && offsetof(NetAddress, ip) == 0 && offsetof(NetAddress, port) == 4,
              "NetAddress layout");
static_assert(sizeof(RadarEndpoint) == 7 && offsetof(RadarEndpoint, ip) == 0 &&
                  offsetof(RadarEndpoint, port) == 4 && offsetof(RadarEndpoint, type) == 6,
              "RadarEndpoint layout");
static_assert(sizeof(InfoDeviceEndpoints) == 61 && offsetof(InfoDeviceEndpoints, first) == 0 &&
                  offsetof(InfoDeviceEndpoints, unused) == 12 && offsetof(InfoDeviceEndpoints, rest) == 13,
              "InfoDeviceEndpoints layout");
static_assert(sizeof(RadarAddress) == 116, "RadarAddress size");
static_assert(offsetof(RadarAddress, head) == 0 && offsetof(RadarAddress, isMulti) == 4 &&
                  offsetof(RadarAddress, multiNum) == 5 && offsetof(RadarAddress, imageStream) == 6 &&
                  offsetof(RadarAddress, imageCtrl) == 13 && offsetof(RadarAddress, imageState) == 20 &&
                  offsetof(RadarAddress, arpaStream) == 27 && offsetof(RadarAddress, arpaCtrl) == 34 &&
                  offsetof(RadarAddress, arpaState) == 41 && offsetof(RadarAddress, imageOriginal) == 48 &&
                  offsetof(RadarAddress, infoDev) == 55,
              "RadarAddress layout");
