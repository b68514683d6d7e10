/// @file
/// UDP datagrams in the packets of a recording. Pure: no socket, no file.
#pragma once

#include <UdpSocket/radaraddress.h>

#include <chrono>
#include <string>
#include <string_view>

namespace radar::recording {

using Time = std::chrono::nanoseconds; ///< since the epoch, UTC

/// The times of a file as they follow each other: where the clock that stamped it was set back, what comes
/// then follows at once on what was before.
class FileClock {
public:
    Time at(Time stamp);

private:
    Time m_last{};
    Time m_lead{}; // of the times before the stamps
};

struct Datagram {
    Time time{};
    NetAddress source{};
    NetAddress destination{};
    std::string_view payload; ///< as long as what it was decoded from
};

/// The longest payload that a datagram over IPv4 has.
inline constexpr std::size_t kLongestPayload = 65507;

/// Appends the datagram with an IP and a UDP header, checksums right. @param payload kLongestPayload at most
void appendPacket(std::string& bytes, const Datagram& datagram);

/// What the frames of a recording begin with.
enum class Link { Ethernet, Cooked, Cooked2, Ip };

struct Decoded {
    enum class Kind {
        Datagram,
        Fragment, ///< of a larger packet
        Cut,      ///< the recording has not all of it
        Other,    ///< no UDP over IPv4, or broken
    };
    Kind kind;
    NetAddress source{};
    NetAddress destination{};
    std::string_view payload{};
};

/// VLAN tags are skipped.
Decoded decode(Link link, std::string_view frame);

} // namespace radar::recording
