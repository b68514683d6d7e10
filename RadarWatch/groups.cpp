#include <RadarWatch/radarwatch.h>

#include <UdpSocket/protocol/address_plan.h>

namespace radar {

std::vector<RadarAddress> groups(int hostId) {
    const auto id = static_cast<std::uint8_t>(hostId);
    if (id != hostId || !plan::isHostId(id))
        return {};
    std::vector<RadarAddress> streams(2);
    for (const plan::Row& row : plan::kRows) {
        const NetAddress endpoint = plan::announcedEndpoint(id, row.field, row.stream);
        streams[static_cast<std::size_t>(row.stream)].*row.field = {endpoint.ip, endpoint.port, 0};
    }
    for (RadarAddress& stream : streams)
        plan::fillInfoDevices(stream.infoDev, plan::getInfoDevBaseEp(id));
    return streams;
}

const char* version() {
    return RADARWATCH_VERSION;
}

} // namespace radar
