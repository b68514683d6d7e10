#include <UdpSocket/protocol/address_plan.h>

#include <algorithm>
#include <iterator>

namespace plan {

namespace {

constexpr std::uint8_t kFirstBlockId = 16;
constexpr std::uint8_t kLastBlockId = 63;
constexpr std::uint32_t kGroupsPerHost = 16;
constexpr std::uint32_t kPortsPerHost = 32;
constexpr Endpoint kFirstBlock{ipv4(236, 6, 7, 35), 6003}; // host id 16

constexpr Endpoint kInfoDevices{ipv4(236, 6, 11, 10), 7600};
constexpr std::uint32_t kInfoDevicesPerHost = 32;
constexpr std::uint8_t kInfoDevicesBaseId = 9;

constexpr Endpoint kFirstDedicated{ipv4(234, 5, 6, 7), 34567};
constexpr std::uint32_t kDedicatedStep = 33;
constexpr std::uint32_t kDedicatedInfoDevices = 14; // offset into the block

constexpr const Row& row(EndpointField field, int stream) {
    return *std::find_if(std::begin(kRows), std::end(kRows), [=](const Row& candidate) {
        return candidate.field == field && candidate.stream == stream;
    });
}

constexpr bool ownsBlock(std::uint8_t id) {
    return id >= kFirstBlockId && id <= kLastBlockId;
}

constexpr Endpoint block(std::uint8_t id) {
    const std::uint32_t k = id - kFirstBlockId;
    return {kFirstBlock.ip + kGroupsPerHost * k,
            static_cast<std::uint16_t>(kFirstBlock.port + kPortsPerHost * k)};
}

constexpr Endpoint endpoint(std::uint8_t id, const Row& planned) {
    return ownsBlock(id) ? block(id) + planned.offset : planned.hostOne;
}

constexpr Endpoint dedicated(std::uint8_t number) {
    return kFirstDedicated + kDedicatedStep * number;
}

void set(RadarEndpoint& target, const NetAddress& address) {
    target = {address.ip, address.port, 0};
}

RadarAddress makeDefaultRecord() {
    RadarAddress record{};
    for (const Row& planned : kRows)
        if (planned.displayPort != 0)
            set(record.*planned.field, Endpoint{planned.hostOne.ip, planned.displayPort});
    fillInfoDevices(record.infoDev, kInfoDevices);
    return record;
}

} // namespace

NetAddress announcedEndpoint(std::uint8_t id, EndpointField field, int stream) {
    return endpoint(id, row(field, stream));
}

const RadarAddress& defaultRecord() {
    static const RadarAddress scRdAddr = makeDefaultRecord();
    return scRdAddr;
}

RadarAddress dedicatedRecord(std::uint8_t number) {
    RadarAddress record{};
    record.isMulti = 1;
    record.multiNum = number;
    for (const Row& planned : kRows)
        if (planned.stream == 0)
            set(record.*planned.field, dedicated(number) + planned.offset);
    fillInfoDevices(record.infoDev, dedicated(number) + kDedicatedInfoDevices);
    return record;
}

NetAddress getDedicatedBaseEp(std::uint8_t n) {
    return dedicated(n);
}

NetAddress getInfoDevBaseEp(std::uint8_t id) {
    const std::uint32_t offset = ownsBlock(id) ? kInfoDevicesPerHost * (id - kInfoDevicesBaseId) : 0U;
    return kInfoDevices + offset;
}

NetAddress getOriginalImageEp(std::uint8_t id, std::uint8_t stream) {
    return endpoint(id, row(&RadarAddress::imageOriginal, stream == 0 ? 0 : 1));
}

void fillInfoDevices(InfoDeviceEndpoints& devices, const NetAddress& base) {
    const Endpoint first{__builtin_bswap32(base.ip), __builtin_bswap16(base.port)};
    for (std::uint32_t i = 0; i < InfoDeviceEndpoints::size(); ++i)
        devices[i] = first + i;
}

HostNumber hostNumber(std::uint16_t port) {
    const Row& arpaStream = row(&RadarAddress::arpaStream, 0);
    if (port == arpaStream.hostOne.port)
        return {1, true, 1};
    const auto distance = static_cast<std::uint16_t>(port - (kFirstBlock + arpaStream.offset).port);
    const auto index = static_cast<std::uint8_t>(distance / kPortsPerHost);
    const auto id = static_cast<std::uint8_t>(index + kFirstBlockId);
    const bool inRange = index <= kLastBlockId - kFirstBlockId;
    return {inRange ? id : std::uint8_t{0}, distance % kPortsPerHost == 0, id};
}

std::uint8_t hostIdOf(const RadarAddress& record) {
    const std::uint8_t id = hostNumber(hostOrderPort(record.arpaStream)).id;
    const bool planned =
        id != 0 && announcedEndpoint(id, &RadarAddress::arpaStream, 0).port == record.arpaStream.port;
    return planned ? id : std::uint8_t{0};
}

NetAddress renumbered(const NetAddress& wanted, std::uint8_t from, std::uint8_t to) {
    const auto isWanted = [&](const NetAddress& planned) {
        return planned.ip == wanted.ip && planned.port == wanted.port;
    };
    for (const Row& planned : kRows)
        if (isWanted(endpoint(from, planned)))
            return endpoint(to, planned);
    InfoDeviceEndpoints before;
    InfoDeviceEndpoints after;
    fillInfoDevices(before, getInfoDevBaseEp(from));
    fillInfoDevices(after, getInfoDevBaseEp(to));
    for (std::size_t i = 0; i < InfoDeviceEndpoints::size(); ++i)
        if (isWanted(before[i]))
            return after[i];
    return wanted;
}

} // namespace plan
