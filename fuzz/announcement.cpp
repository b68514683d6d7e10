// One datagram on the discovery group, as displays read it that differ in their settings, and what it leaves
// in the table.
#include "support.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

#include <cstring>

namespace {

void list(const protocol::Announcement& announcement, const protocol::DisplayOptions& options) {
    protocol::RadarTable table;
    for (std::size_t i = 0; i < announcement.listingCount; ++i) {
        const auto& [name, record] = announcement.listings[i];
        const std::string_view text = name;
        fuzz::require(text.size() <= 21 && text.size() == std::strlen(name.c_str()));
        fuzz::require(text.starts_with(announcement.name.view()));
        fuzz::require(!options.fixedRadar || text.find("TCP") != std::string_view::npos);
        const auto update = table.update(text, record, 1, 0);
        fuzz::require(update.change == protocol::RadarTable::Change::Added && update.displaced.empty());
        const auto* const entry = table.find(text);
        fuzz::require(entry != nullptr && std::memcmp(&entry->record, &record, sizeof record) == 0);
    }
    fuzz::require(table.expire(7).empty() && table.entries().size() == announcement.listingCount);
    fuzz::require(table.expire(8).size() == announcement.listingCount && table.entries().empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view datagram = fuzz::text(data, size);
    const bool right = protocol::isAnnouncement(datagram);
    fuzz::require(!right || ((size == 150 || size == 222) && protocol::isSignOfRadar(datagram)));
    for (const bool fixedRadar : {false, true})
        for (const bool tcpService : {false, true}) {
            const protocol::DisplayOptions options{fixedRadar, tcpService};
            const auto announcement = protocol::readAnnouncement(datagram, options);
            fuzz::require(announcement.has_value() == right);
            if (!announcement)
                continue;
            fuzz::require(announcement->listingCount <= announcement->listings.size());
            fuzz::require(announcement->listingCount > 0 || fixedRadar);
            fuzz::require(announcement->secondStream.has_value() == (size == 222));
            fuzz::require(!announcement->answer || tcpService);
            list(*announcement, options);
        }
    return 0;
}
