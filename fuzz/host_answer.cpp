// A host's name, and endpoints of its own: what it composes of them is what displays read.
#include "support.h"

#include <UdpSocket/protocol/announcement.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kUnreadBehindName = 20; // what follows of a longer name stands where other fields would

bool same(const RadarEndpoint& read, const NetAddress& composed) {
    return read.ip == composed.ip && read.port == composed.port && read.type == 0;
}

protocol::Announcement read(const std::string& datagram, std::string_view name) {
    const auto announcement = protocol::readAnnouncement(datagram, {});
    fuzz::require(announcement.has_value());
    const std::string_view expected = name.substr(0, std::min<std::size_t>(16, name.find('\0')));
    fuzz::require(announcement->name.view() == expected && announcement->listingCount == 1);
    fuzz::require(name.size() > kUnreadBehindName || announcement->listings[0].name.view() == expected);
    fuzz::require(announcement->listings[0].record.head == 0);
    return *announcement;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto id = static_cast<std::uint8_t>(size % 49 == 0 ? 1 : 15 + size % 49);
    for (const unsigned int streams : {1U, 2U}) {
        const std::string_view name = fuzz::text(data, size).substr(0, protocol::maxComposedName(streams));
        const std::string datagram = protocol::composeAnnouncement(name, id, streams);
        fuzz::require(datagram.size() == (streams == 1 ? 150 : 222));
        const protocol::Announcement announcement = read(datagram, name);
        if (name.size() > kUnreadBehindName)
            continue;
        for (const plan::EndpointField field :
             {&RadarAddress::imageStream, &RadarAddress::imageCtrl, &RadarAddress::imageState,
              &RadarAddress::arpaStream, &RadarAddress::arpaCtrl, &RadarAddress::arpaState}) {
            fuzz::require(
                same(announcement.listings[0].record.*field, plan::announcedEndpoint(id, field, 0)));
            fuzz::require(streams == 1 ||
                          same(*announcement.secondStream.*field, plan::announcedEndpoint(id, field, 1)));
        }
    }
    RadarAddress own{};
    std::memcpy(&own, data, std::min(size, sizeof own));
    const std::string_view name = fuzz::text(data, size).substr(0, kUnreadBehindName);
    const RadarAddress record = read(protocol::composeAnnouncement(name, id, own), name).listings[0].record;
    fuzz::require(same(record.imageStream, own.imageStream) && same(record.imageCtrl, own.imageCtrl) &&
                  same(record.imageState, own.imageState));
    return 0;
}
