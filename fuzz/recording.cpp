// A frame of a recording behind each link layer, what is made of the datagram in it, and the blocks of a
// file.
#include "support.h"

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/pcapng.h>

using namespace radar::recording;

namespace {

void take(const Datagram& datagram) {
    Contents contents;
    contents.add(datagram);
    contents.add(datagram);
    fuzz::require(contents.total().datagrams == 2 && contents.streams().size() == 1);
    for (const Contents::Radar& radar : contents.radars()) {
        fuzz::require(radar.announcements == 2 && radar.changes.size() == 1 && radar.presences.size() == 1);
        fuzz::require(radar.announcementAt(datagram.time) == datagram.payload);
        endpointsOf(datagram.payload);
    }
    std::string packet;
    appendPacket(packet, datagram);
    const Decoded again = decode(Link::Ip, packet);
    fuzz::require(again.kind == Decoded::Kind::Datagram && again.payload == datagram.payload);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes = fuzz::text(data, size);
    for (const Link link : {Link::Ethernet, Link::Cooked, Link::Cooked2, Link::Ip}) {
        const Decoded decoded = decode(link, bytes);
        if (decoded.kind != Decoded::Kind::Datagram)
            continue;
        fuzz::require(decoded.payload.data() >= bytes.data() &&
                      decoded.payload.data() + decoded.payload.size() <= bytes.data() + size);
        take({Time(0), decoded.source, decoded.destination, decoded.payload});
    }
    take({Time(0),
          {},
          plan::Endpoint{plan::ipv4(236, 6, 7, 5), wire::kDiscovery.port},
          bytes.substr(0, kLongestPayload)});

    Notes notes;
    std::vector<Frames> interfaces;
    const std::size_t whole = wholeBlocks(bytes);
    fuzz::require(whole <= size);
    std::string_view rest = bytes.substr(0, whole);
    while (const std::size_t length = takeBlock(notes, rest)) {
        if (const auto datagram = takeDatagram(interfaces, rest.substr(0, length)))
            take(*datagram);
        rest.remove_prefix(length);
    }
    fuzz::require(notes.comments.size() <= Notes::kMaxComments);
    return 0;
}
