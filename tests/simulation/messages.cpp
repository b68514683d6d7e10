#include "messages.h"

#include <UdpSocket/protocol/announcement.h>

namespace simulation {

std::uint32_t address(int segment, std::uint32_t number) {
    return 10U | static_cast<std::uint32_t>(segment + 1) << 8 | (number >> 8) << 16 | (number & 0xFF) << 24;
}

Datagram announcement(const Node& sender, std::uint32_t source, const std::string& name, std::uint8_t hostId,
                      Form form) {
    const bool user = form == Form::User || form == Form::UserTcp;
    const bool tcp = form == Form::Tcp || form == Form::UserTcp;
    std::string bytes = protocol::composeAnnouncement(name, hostId, form == Form::Short ? 1 : 2);
    if (user || tcp) {
        bytes[22] = 1; // extended
        bytes[23] = 7; // dedicated number
        bytes[30] = tcp ? 1 : 0;
        bytes[73] = user ? 1 : 0;
        bytes[78] = 0x20; // port of the user's image stream
    }
    const std::string listed = name.substr(0, 16);
    Datagram datagram{Traffic::Announcement, std::move(bytes), sender.number(), source,
                      "announcement of " + name + ", id " + std::to_string(hostId)};
    datagram.name = user ? listed + ":User" : listed;
    datagram.tcpName = tcp ? listed + ":TCP" : "";
    datagram.arpaPort =
        __builtin_bswap16(static_cast<std::uint16_t>(hostId == 1 ? 6688 : 6009 + 32 * (hostId - 16)));
    datagram.sign = true;
    return datagram;
}

Datagram query(const Node& sender, std::uint32_t source) {
    return {Traffic::Query, "\x01\xB1", sender.number(), source, "query"};
}

Datagram negotiation(const Node& sender, std::string_view bytes) {
    static constexpr const char* kWords[] = {"", "probe for ", "confirm for ", "objection to "};
    const std::string what = bytes::isMessage(bytes) ? kWords[static_cast<std::size_t>(bytes[0])] +
                                                           std::to_string(bytes::id(bytes))
                                                     : "reset or noise";
    return {Traffic::Negotiation, std::string(bytes), sender.number(), 0, what};
}

Datagram beacon(const Node& sender) {
    Datagram datagram{Traffic::Beacon, "aabbccdd", sender.number(), 0, "beacon"};
    datagram.sign = true;
    return datagram;
}

Datagram noise(const Node& sender) {
    Datagram datagram{Traffic::Announcement, std::string(222, 'x'), sender.number(), 0, "noise"};
    datagram.sign = true; // the length alone counts
    return datagram;
}

} // namespace simulation
