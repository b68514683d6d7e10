// A host answers the two bytes of a query and nothing else. What is no query is tried as a radar's name as
// well.
#include "support.h"

#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/radar_client.h>
#include <UdpSocket/hostserver.cpp> // its classes are its own

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static HostServerPrivate& host =
        *new HostServerPrivate(composeAnnouncement("radar", wire::kLongAnnouncement, 16, nullptr));
    const std::string_view datagram(reinterpret_cast<const char*>(data), size);
    const unsigned int before = fuzz::sent;
    host.OnUdpGroupDataReceived("10.0.0.1", 6878, "236.6.7.5", 6878, datagram.data(), static_cast<int>(size));
    fuzz::require(fuzz::sent - before == (datagram == wire::text(wire::kQuery) ? 1U : 0U));

    static std::int64_t now = 1000;
    static MultiRadarClientPrivate& display = *new MultiRadarClientPrivate;
    net::detail::setClock([] { return now; });
    const std::string_view name = datagram.substr(0, std::min<std::size_t>(148, datagram.find('\0')));
    for (const wire::Layout* layout : {&wire::kShortAnnouncement, &wire::kLongAnnouncement}) {
        const std::string announcement = composeAnnouncement(name, *layout, 16, nullptr);
        fuzz::require(announcement.size() == layout->length);
        display.OnUdpGroupDataReceived("10.0.0.1", 6878, "236.6.7.5", 6878, announcement.data(),
                                       static_cast<int>(announcement.size()));
        fuzz::require(name.size() > 20 || // the rest of a longer one stands where other fields would
                      display.getRadar() == std::vector<std::string>{std::string(name.substr(0, 16))});
    }
    now += 9; // the table is empty again for the next input
    display.query();
    return 0;
}
