#include <UdpSocket/protocol/announcement.h>

#include <algorithm>
#include <iterator>

namespace protocol {

namespace {

std::string_view readName(std::string_view datagram) {
    const std::string_view field = datagram.substr(wire::kName.offset, wire::kName.width);
    return field.substr(0, field.find('\0'));
}

RadarEndpoint udp(const NetAddress& endpoint) {
    return {endpoint.ip, endpoint.port, 0};
}

/// The record of one stream, every endpoint UDP; what the address plan adds is left zero.
RadarAddress readStream(std::string_view datagram, const wire::Layout& layout, int stream) {
    RadarAddress record{};
    record.head = wire::addressAt(datagram, wire::kRadarIp);
    for (const wire::EndpointPlace& place : layout.endpoints)
        if (place.stream == stream)
            record.*place.field = udp(wire::endpointAt(datagram, place));
    return record;
}

void fillFromPlan(RadarAddress& record, std::uint8_t hostId, std::uint8_t stream) {
    record.imageOriginal = udp(plan::getOriginalImageEp(hostId, stream));
    plan::fillInfoDevices(record.infoDev, plan::getInfoDevBaseEp(hostId));
}

void replaceByUserEndpoints(RadarAddress& record, std::string_view datagram) {
    for (const wire::EndpointPlace& place : wire::kUserEndpoints) {
        const NetAddress endpoint = wire::endpointAt(datagram, place);
        if (endpoint.port != 0)
            record.*place.field = udp(endpoint);
    }
}

void replaceByTcpEndpoints(RadarAddress& record, std::string_view datagram) {
    constexpr std::uint32_t kRadarsOwn = 0xFFFFFFFF;
    for (std::size_t i = 0; i < std::size(wire::kTcpEndpoints); ++i) {
        const wire::EndpointPlace& place = wire::kTcpEndpoints[i];
        const NetAddress endpoint = wire::endpointAt(datagram, place);
        if (endpoint.ip == 0 && endpoint.port == 0)
            continue;
        // as the radar sees it: ours is the other
        const std::uint8_t kind = wire::byteAt(datagram, wire::kTcpKinds, i);
        const auto ours = static_cast<std::uint8_t>(kind == 0 ? 0 : 3 - kind);
        record.*place.field = {endpoint.ip, endpoint.port, ours};
    }
    for (const plan::EndpointField control : {&RadarAddress::imageCtrl, &RadarAddress::arpaCtrl})
        if ((record.*control).ip == kRadarsOwn)
            (record.*control).ip = record.head;
}

/// The record of the TCP service.
RadarAddress readTcpService(std::string_view datagram) {
    RadarAddress record = plan::dedicatedRecord(wire::byteAt(datagram, wire::kRadarNumber));
    record.head = wire::addressAt(datagram, wire::kRadarIp);
    replaceByTcpEndpoints(record, datagram);
    return record;
}

void list(Announcement& announcement, const Name& name, const RadarAddress& record,
          const DisplayOptions& options) {
    if (options.fixedRadar && name.view().find("TCP") == std::string_view::npos)
        return;
    announcement.listings[announcement.listingCount++] = {name, record};
}

void readShortForm(Announcement& announcement, std::string_view datagram, const DisplayOptions& options) {
    const RadarAddress record = readStream(datagram, wire::kShortAnnouncement, 0);
    announcement.arpaPort = plan::hostOrderPort(record.arpaStream);
    list(announcement, announcement.name, record, options);
}

void readLongForm(Announcement& announcement, std::string_view datagram, const DisplayOptions& options) {
    RadarAddress record = readStream(datagram, wire::kLongAnnouncement, 0);
    announcement.arpaPort = plan::hostOrderPort(record.arpaStream);
    const plan::HostNumber number = plan::hostNumber(announcement.arpaPort);
    announcement.number = number;
    fillFromPlan(record, number.id, 0);
    if (options.bothStreams) {
        announcement.secondStream = readStream(datagram, wire::kLongAnnouncement, 1);
        fillFromPlan(*announcement.secondStream, number.id, 1);
    }

    const bool extended = wire::byteAt(datagram, wire::kExtended) == 1;
    if (!extended) {
        list(announcement, announcement.name, record, options);
        return;
    }
    const bool user = wire::byteAt(datagram, wire::kUserValid) != 0;
    if (user)
        replaceByUserEndpoints(record, datagram);
    list(announcement, user ? Name(announcement.name, Name::kUser) : announcement.name, record, options);
    if (!options.tcpService)
        return;
    const std::uint8_t offered = wire::byteAt(datagram, wire::kTcpOffered);
    if (offered == 1) {
        list(announcement, Name(announcement.name, Name::kTcp), readTcpService(datagram), options);
        announcement.answer = wire::kTcpWanted;
    } else if (offered == 0) {
        announcement.answer = wire::kTcpUnwanted;
    }
}

const wire::Layout& layoutOf(unsigned int streams) {
    return streams == 1 ? wire::kShortAnnouncement : wire::kLongAnnouncement;
}

const wire::Layout& layoutOf(std::string_view announcement) {
    return layoutOf(isLongAnnouncement(announcement) ? 2 : 1);
}

bool isImageEndpoint(plan::EndpointField field) {
    return field == &RadarAddress::imageStream || field == &RadarAddress::imageCtrl ||
           field == &RadarAddress::imageState;
}

/// @param images instead of the planned image endpoints, or null
std::string compose(std::string_view name, std::uint8_t hostId, unsigned int streams,
                    const RadarAddress* images) {
    const wire::Layout& layout = layoutOf(streams);
    std::string datagram(layout.length, '\0');
    const auto write = [&](std::size_t offset, std::string_view bytes) {
        datagram.replace(offset, bytes.size(), bytes);
    };
    write(wire::kCode.offset, wire::text(wire::kAnnouncement));
    write(wire::kName.offset, name);
    write(wire::kRadarIp.offset, std::string(wire::kRadarIp.width, '\0')); // ends a longer name
    for (const wire::EndpointPlace& place : layout.endpoints) {
        const NetAddress endpoint = images != nullptr && isImageEndpoint(place.field)
                                        ? images->*place.field
                                        : plan::announcedEndpoint(hostId, place.field, place.stream);
        std::string bytes(reinterpret_cast<const char*>(&endpoint), sizeof endpoint);
        bytes.append(std::min(wire::kEndpointGap, layout.length - place.offset - bytes.size()), '\0');
        write(place.offset, bytes);
    }
    return datagram;
}

} // namespace

Name::Name(std::string_view announced, std::string_view suffix) {
    m_length = announced.copy(m_text, wire::kName.width);
    m_length += suffix.copy(m_text + m_length, sizeof m_text - 1 - m_length);
}

std::string_view announcedName(std::string_view listed) {
    for (const std::string_view suffix : {Name::kUser, Name::kTcp})
        if (listed.ends_with(suffix))
            return listed.substr(0, listed.size() - suffix.size());
    return listed;
}

bool isLongAnnouncement(std::string_view datagram) {
    return datagram.size() == wire::kLongAnnouncement.length && wire::hasCode(datagram, wire::kAnnouncement);
}

bool isAnnouncement(std::string_view datagram) {
    return isLongAnnouncement(datagram) || (datagram.size() == wire::kShortAnnouncement.length &&
                                            wire::hasCode(datagram, wire::kAnnouncement));
}

std::optional<Announcement> readAnnouncement(std::string_view datagram, const DisplayOptions& options) {
    if (!isAnnouncement(datagram))
        return std::nullopt;
    std::optional<Announcement> announcement(std::in_place);
    announcement->name = Name(readName(datagram));
    if (isLongAnnouncement(datagram))
        readLongForm(*announcement, datagram, options);
    else
        readShortForm(*announcement, datagram, options);
    return announcement;
}

bool isSignOfRadar(std::string_view datagram) {
    return datagram.size() == wire::kShortAnnouncement.length ||
           datagram.size() == wire::kLongAnnouncement.length || datagram == wire::kBeaconMarker;
}

std::size_t maxComposedName(unsigned int streams) {
    return layoutOf(streams).length - wire::kName.offset;
}

std::string composeAnnouncement(std::string_view name, std::uint8_t hostId, unsigned int streams) {
    return compose(name, hostId, streams, nullptr);
}

std::string composeAnnouncement(std::string_view name, std::uint8_t hostId, const RadarAddress& images) {
    return compose(name, hostId, 1, &images);
}

std::uint8_t announcedHostId(std::string_view announcement) {
    return isAnnouncement(announcement) ? plan::hostIdOf(readStream(announcement, layoutOf(announcement), 0))
                                        : std::uint8_t{0};
}

std::string renumbered(std::string_view announcement, std::uint8_t hostId) {
    std::string result(announcement);
    const std::uint8_t before = announcedHostId(announcement);
    if (before == 0)
        return result;
    for (const wire::EndpointPlace& place : layoutOf(announcement).endpoints) {
        const NetAddress moved = plan::renumbered(wire::endpointAt(announcement, place), before, hostId);
        result.replace(place.offset, sizeof moved, reinterpret_cast<const char*>(&moved), sizeof moved);
    }
    return result;
}

} // namespace protocol
