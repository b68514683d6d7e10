/// @file
/// Announcements: what a display makes of one, and how a host composes its own. Both walk the tables of
/// wire.h.
#pragma once

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/wire.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace protocol {

/// A radar's name with one of the suffixes under which displays list it. Needs no heap.
class Name {
public:
    static constexpr std::string_view kUser = ":User"; ///< of an entry with user endpoints
    static constexpr std::string_view kTcp = ":TCP";   ///< of an entry for the TCP service

    Name() = default;
    /// @param announced cut at the width of its field
    explicit Name(std::string_view announced, std::string_view suffix = {});

    const char* c_str() const { return m_text; }
    std::string_view view() const { return {m_text, m_length}; }
    operator std::string_view() const { return view(); }

private:
    char m_text[wire::kName.width + kUser.size() + 1]{};
    std::size_t m_length = 0;
};

/// The name that a radar announced, behind the one under which it is listed.
std::string_view announcedName(std::string_view listed);

/// What decides which entries a display lists.
struct DisplayOptions {
    bool fixedRadar = false; ///< only names that contain "TCP" are listed
    bool tcpService = false; ///< the display uses the radars' TCP service where it is offered
    bool bothStreams = true; ///< secondStream is wanted
};

/// One entry for the radar table.
struct Listing {
    Name name;
    RadarAddress record;
};

/// What an announcement says.
struct Announcement {
    Name name; ///< as announced
    std::array<Listing, 2> listings;
    std::size_t listingCount = 0;             ///< of listings that count, in the order of listing
    std::optional<RadarAddress> secondStream; ///< of a host with two streams, where it is wanted
    std::optional<wire::Code> answer;         ///< to be sent to the radars
    std::uint16_t arpaPort = 0;               ///< of stream 0, host order
    std::optional<plan::HostNumber> number;   ///< what arpaPort says; the short form is not asked
};

bool isAnnouncement(std::string_view datagram);
/// Whether it is one of the length in which hosts with two streams announce themselves.
bool isLongAnnouncement(std::string_view datagram);

/// Empty when @p datagram is no announcement.
std::optional<Announcement> readAnnouncement(std::string_view datagram, const DisplayOptions& options);

/// Whether a display that searches takes a datagram for a radar's: an announcement's length, or the marker of
/// a presence beacon.
bool isSignOfRadar(std::string_view datagram);

/// The longest name that composeAnnouncement can copy, which is longer than what displays read of it.
/// @param streams 1 or 2
std::size_t maxComposedName(unsigned int streams);

/// The announcement of a host by the address plan. Of @p name, up to maxComposedName() long, displays read
/// what the name's field holds.
/// @param hostId  a host id
/// @param streams 1 or 2
std::string composeAnnouncement(std::string_view name, std::uint8_t hostId, unsigned int streams);

/// The announcement of a host with one stream whose image endpoints are those of @p images.
std::string composeAnnouncement(std::string_view name, std::uint8_t hostId, const RadarAddress& images);

/// The host id behind an announcement; 0: it is not in the plan.
std::uint8_t announcedHostId(std::string_view announcement);

/// The announcement as its host would send it with another id: what is in the plan of its id is in that of
/// @p hostId then, and the rest stays.
std::string renumbered(std::string_view announcement, std::uint8_t hostId);

} // namespace protocol
