#include "json.h"

#include "endpoints.h"

#include <cstdio>

using nlohmann::ordered_json;

ordered_json jsonDocument() {
    return {{"schema", 1}};
}

void addName(ordered_json& object, const std::string& name) {
    object["name"] = name;
    std::string hex;
    for (const char byte : name) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x",
                      static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        hex += digits;
    }
    object["nameHex"] = hex;
}

ordered_json toJson(const NetAddress& endpoint) {
    if (!isAnnounced(endpoint))
        return nullptr;
    return {{"address", net::transAddr(endpoint.ip)}, {"port", net::NtoHs(endpoint.port)}};
}

ordered_json toJson(const Radar& radar) {
    ordered_json object;
    addName(object, radar.name);
    object["hostId"] = radar.hostId != 0 ? ordered_json(radar.hostId) : ordered_json(nullptr);
    object["source"] = radar.source.empty() ? ordered_json(nullptr) : ordered_json(radar.source);
    object["ageSeconds"] =
        radar.age ? ordered_json(static_cast<double>(radar.age->count()) / 1000) : ordered_json(nullptr);
    object["streams"] = ordered_json::array();
    for (const RadarAddress& record : radar.streams) {
        ordered_json stream;
        for (const EndpointName& name : kEndpointNames) {
            const RadarEndpoint& endpoint = record.*name.endpoint;
            stream[name.key] = toJson(NetAddress(endpoint));
            if (!stream[name.key].is_null())
                stream[name.key]["kind"] = kindText(endpoint.type);
        }
        stream["informationDevices"] = ordered_json::array();
        for (std::size_t i = 0; i < InfoDeviceEndpoints::size(); ++i)
            if (isAnnounced(record.infoDev[i]))
                stream["informationDevices"].push_back(toJson(record.infoDev[i]));
        object["streams"].push_back(stream);
    }
    return object;
}

std::string jsonText(const ordered_json& document, bool oneLine) {
    return document.dump(oneLine ? -1 : 2, ' ', true, ordered_json::error_handler_t::replace) + "\n";
}
