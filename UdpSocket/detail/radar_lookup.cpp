// What MultiRadarClientPrivate hands out of its radar table.

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/radar_client.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kDefaultRecordStream = 101; // selects the default record for any name

net::detail::Mutex s_lookupMutex; // guards the records handed out last, and what printRadarAddrs remembers

/// The records found last, one copy for the process: what getAddress returns points into it.
std::string& lastRecords() {
    static std::string data;
    return data;
}

bool isDefault(const char* name) {
    return std::string_view(name).starts_with("Default");
}

bool diagnosticsOn() {
    const char* value = std::getenv("RADAR_DIAGNOSTICS");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

const char* kindText(std::uint8_t type) {
    constexpr const char* texts[] = {"UDP", "TCP Server", "TCP Client"};
    return type < std::size(texts) ? texts[type] : "null";
}

const RadarAddress& announceDefaultRecord() {
    std::puts("defalut radar address");
    return plan::defaultRecord();
}

} // namespace

int MultiRadarClientPrivate::getRadar(char (*names)[24], int max) const {
    net::detail::Lock lock(m_mutex);
    int count = 0;
    for (const auto& [name, entry] : m_radars) {
        if (count >= max)
            break;
        names[count][name.copy(names[count], sizeof names[count] - 1)] = '\0';
        ++count;
    }
    return count;
}

std::vector<std::string> MultiRadarClientPrivate::getRadar() const {
    net::detail::Lock lock(m_mutex);
    std::vector<std::string> names;
    names.reserve(m_radars.size());
    for (const auto& [name, entry] : m_radars)
        names.push_back(name);
    return names;
}

const RadarAddress* MultiRadarClientPrivate::getAddress(const char* name, int stream) const {
    if (isDefault(name) || stream == kDefaultRecordStream)
        return &announceDefaultRecord();
    net::detail::Lock lock(m_mutex);
    const auto found = m_radars.find(std::string_view(name));
    if (found == m_radars.end())
        return nullptr;
    net::detail::Lock lookup(s_lookupMutex);
    std::string& data = lastRecords();
    data = found->second.records;
    const std::int64_t position = std::int64_t{stream} * std::int64_t{sizeof(RadarAddress)};
    const auto length = static_cast<std::int64_t>(data.size());
    if (position < 0 || position > length)
        return nullptr;
    const auto* record = reinterpret_cast<const RadarAddress*>(data.data() + position);
    if (position < length && diagnosticsOn())
        printRadarAddrs(*record);
    return record;
}

int MultiRadarClientPrivate::getRadarStreamCount(const char* name) const {
    net::detail::Lock lock(m_mutex);
    const auto found = m_radars.find(std::string_view(name));
    return found == m_radars.end() ? 0
                                   : static_cast<int>(found->second.records.size() / sizeof(RadarAddress));
}

void MultiRadarClientPrivate::queryForAdjust(const char* name) {
    RadarAddress first;
    if (isDefault(name)) {
        first = announceDefaultRecord();
    } else {
        net::detail::Lock lock(m_mutex);
        const auto found = m_radars.find(std::string_view(name));
        if (found == m_radars.end()) {
            std::printf("%s: donot find radar[%s]\n", __func__, name);
            return;
        }
        net::detail::Lock lookup(s_lookupMutex);
        std::string& data = lastRecords();
        data = found->second.records;
        std::memcpy(&first, data.data(), sizeof first);
    }
    const std::uint8_t id = plan::streamPort2MultiNum(net::NtoHs(first.arpaStream.port));
    std::printf("query for reset id=0x%x\n", id);
    const wire::Negotiation objection{wire::kObjection, id};
    net::detail::Lock lock(m_transportMutex);
    if (m_resetSender)
        m_resetSender->sendData(reinterpret_cast<const char*>(&objection), sizeof objection);
}

std::string MultiRadarClientPrivate::netAddrToString(NetAddress address) {
    char port[16];
    std::snprintf(port, sizeof port, "%d", net::NtoHs(address.port));
    return net::transAddr(address.ip) + (":" + std::string(port));
}

void MultiRadarClientPrivate::printRadarAddrs(const RadarAddress& record) {
    static std::string lastPrinted;
    const bool multi = record.isMulti != 0;
    const unsigned int number = multi ? record.multiNum : 0;
    const unsigned int high = number >> 4;
    const unsigned int address = multi ? (((10 * high + 20) << 8) + 11 * (22 - high)) & 0xFFFF : 0;
    char head[32];
    std::snprintf(head, sizeof head, "MultiAddress(%s):%02X 0x%04X\r\n", multi ? "true" : "false", number,
                  address);

    std::string text = head;
    const auto line = [&](const char* label, const RadarEndpoint& endpoint) {
        text += label + netAddrToString(endpoint) + " " + kindText(endpoint.type) + "\r\n";
    };
    line("ImageStream: ", record.imageStream);
    line("ImageOriginal: ", record.imageOriginal);
    line("ImageCtrl:   ", record.imageCtrl);
    line("ImageState:  ", record.imageState);
    line("ArpaStream: ", record.arpaStream);
    line("ArpaCtrl:   ", record.arpaCtrl);
    line("ArpaState:  ", record.arpaState);
    if (text == lastPrinted)
        return;
    std::printf("\r\n%s\r\n", text.c_str());
    lastPrinted = text;
}
