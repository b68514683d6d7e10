#include <RadarWatch/recording/contents.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

#include <arpa/inet.h>

#include <algorithm>

namespace radar::recording {

namespace {

constexpr std::chrono::seconds kSilence(protocol::RadarTable::kSilence);

void count(Contents::Stream& stream, const Datagram& datagram) {
    stream.first = stream.datagrams == 0 ? datagram.time : std::min(stream.first, datagram.time);
    if (stream.datagrams > 0)
        stream.longestGap = std::max(stream.longestGap, datagram.time - stream.last);
    stream.last = stream.datagrams == 0 ? datagram.time : std::max(stream.last, datagram.time);
    ++stream.datagrams;
    stream.bytes += datagram.payload.size();
    const std::uint32_t source = datagram.source.ip;
    if (stream.sources.size() < Contents::Stream::kMaxSources)
        stream.sources.insert(source);
}

void addRecord(std::vector<RadarEndpointPlace>& places, const RadarAddress& record, int stream) {
    for (const plan::Row& row : plan::kRows)
        if (const RadarEndpoint& endpoint = record.*row.field; row.stream == 0 && endpoint.port != 0)
            places.push_back({endpoint, row.field, stream});
}

} // namespace

bool isFor(const Datagram& datagram, const wire::Group& group) {
    return datagram.destination.port == htons(group.port) &&
           datagram.destination.ip == ::inet_addr(group.address);
}

std::vector<RadarEndpointPlace> endpointsOf(std::string_view datagram) {
    std::vector<RadarEndpointPlace> places;
    const auto announcement = protocol::readAnnouncement(datagram, {});
    if (!announcement)
        return places;
    const std::uint8_t id = protocol::announcedHostId(datagram);
    const int streams = announcement->secondStream ? 2 : 1;
    addRecord(places, announcement->listings[0].record, 0);
    if (announcement->secondStream)
        addRecord(places, *announcement->secondStream, 1);
    if (id == 0)
        return places;
    for (int stream = 0; stream < streams; ++stream) // the short form has no place for it
        places.push_back({plan::getOriginalImageEp(id, static_cast<std::uint8_t>(stream)),
                          &RadarAddress::imageOriginal, stream});
    InfoDeviceEndpoints devices;
    plan::fillInfoDevices(devices, plan::getInfoDevBaseEp(id));
    for (std::size_t i = 0; i < InfoDeviceEndpoints::size(); ++i)
        places.push_back({devices[i], nullptr, static_cast<int>(i)});
    return places;
}

const std::string& Contents::Radar::announcementAt(Time time) const {
    const auto next = std::ranges::upper_bound(changes, time, {}, &Change::time);
    return next == changes.begin() ? changes.front().announcement : std::prev(next)->announcement;
}

void Contents::add(const Datagram& datagram) {
    count(m_total, datagram);
    count(m_streams[keyOf(datagram.destination)], datagram);
    if (isFor(datagram, wire::kDiscovery))
        addAnnouncement(datagram);
}

void Contents::addAnnouncement(const Datagram& datagram) {
    const auto announcement = protocol::readAnnouncement(datagram.payload, {});
    if (!announcement)
        return;
    const std::string name(announcement->name.view());
    const std::uint32_t source = datagram.source.ip;
    const auto [known, isNew] = m_indices.try_emplace({name, source}, m_radars.size());
    if (isNew)
        m_radars.push_back({name, source, {}, {}, 0});
    Radar& radar = m_radars[known->second];
    ++radar.announcements;
    // A clock that was set back must not turn the order of changes.
    const Time time = isNew ? datagram.time : std::max(datagram.time, radar.presences.back().last);
    if (isNew || radar.changes.back().announcement != datagram.payload)
        radar.changes.push_back({time, std::string(datagram.payload)});
    if (isNew || time - radar.presences.back().last >= kSilence)
        radar.presences.push_back({time, time});
    radar.presences.back().last = time;
}

} // namespace radar::recording
