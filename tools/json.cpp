#include "json.h"

#include "endpoints.h"

#include <UdpSocket/udpsocket.h>

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

ordered_json toJson(const radar::Radar& entry) {
    ordered_json object;
    addName(object, entry.name);
    object["hostId"] = entry.hostId != 0 ? ordered_json(entry.hostId) : ordered_json(nullptr);
    object["source"] = net::transAddr(entry.source);
    object["ageSeconds"] = static_cast<double>(entry.age.count()) / 1000;
    object["streams"] = ordered_json::array();
    for (const RadarAddress& record : entry.streams) {
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

void addLocalAddress(ordered_json& object, const radar::LocalAddress& local) {
    constexpr const char* kOrigins[] = {nullptr, "option", "profileAddress", "profileInterface", "search"};
    const char* origin = kOrigins[static_cast<int>(local.origin)];
    object["localAddress"] =
        local.address != 0 ? ordered_json(net::transAddr(local.address)) : ordered_json(nullptr);
    object["interface"] = local.interface;
    object["localAddressOrigin"] = origin != nullptr ? ordered_json(origin) : ordered_json(nullptr);
}

std::string jsonText(const ordered_json& document, bool oneLine) {
    return document.dump(oneLine ? -1 : 2, ' ', true, ordered_json::error_handler_t::replace) + "\n";
}
