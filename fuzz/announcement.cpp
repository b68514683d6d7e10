// One datagram on the discovery group, as a display takes it, and every look-up of what it has left in the
// table.
#include "support.h"

#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/radar_client.h>

#include <cstring>

namespace {

std::int64_t s_now = 1000;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static MultiRadarClientPrivate& client = [&]() -> MultiRadarClientPrivate& {
        fuzz::setProfile("[Radar]\nTCPService = true\n");
        ::setenv("RADAR_DIAGNOSTICS", "1", 1);
        net::detail::setClock([] { return s_now; });
        return *new MultiRadarClientPrivate;
    }();
    client.OnUdpGroupDataReceived("10.0.0.1", 6878, "236.6.7.5", 6878, reinterpret_cast<const char*>(data),
                                  static_cast<int>(size));
    char names[2][24];
    const int count = client.getRadar(names, 2);
    fuzz::require(client.getRadar().size() <= 2 && (count == 0 || size == 150 || size == 222));
    for (int i = 0; i < count; ++i) {
        fuzz::require(std::strlen(names[i]) <= 21);
        fuzz::require(client.getRadarStreamCount(names[i]) == 1);
        for (int stream = -1; stream <= 0; ++stream)
            if (const RadarAddress* record = client.getAddress(names[i], stream))
                MultiRadarClientPrivate::netAddrToString(record->imageStream);
        client.queryForAdjust(names[i]);
    }
    s_now += 9; // the table is empty again for the next input
    client.query();
    fuzz::require(client.getRadar().empty());
    return 0;
}
