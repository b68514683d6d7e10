#include <RadarWatch/radarwatch_c.h>

#include <RadarWatch/radarrecording.h>
#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>
#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

struct radar_watch {
    radar::Watch watch;
};

struct radar_recording {
    radar::Recording recording;
};

struct radar_stream {
    radar::Stream stream;
};

struct radar_control {
    radar::Control control;
};

namespace {

using std::chrono::milliseconds;

/// What a call returns, or what it threw.
template <class Call>
int guarded(Call&& call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (const std::system_error& error) {
        return error.code().value() > 0 ? -error.code().value() : -EIO;
    } catch (const std::invalid_argument&) {
        return -EINVAL;
    } catch (const std::exception&) {
        return -EIO;
    }
}

/// Whether the caller gave a structure as this version has it. Versions to come accept the sizes of earlier
/// ones.
template <class Structure>
bool isKnown(const Structure* structure) {
    return structure != nullptr && structure->size == sizeof(Structure);
}

bool isStreamNumber(int number) {
    return number >= 0 && number < RADAR_MAX_STREAMS;
}

bool isChannel(int channel) {
    return channel >= 0 && channel < RADAR_CHANNELS;
}

int toInt(std::size_t count) {
    return static_cast<int>(std::min<std::size_t>(count, INT_MAX));
}

template <std::size_t size>
void copyText(char (&to)[size], const std::string& from) {
    to[from.copy(to, size - 1)] = '\0';
}

radar_endpoint toC(const NetAddress& endpoint, std::uint8_t kind = RADAR_UDP) {
    return {endpoint.ip, endpoint.port, kind, 0};
}

radar_endpoint toC(const RadarEndpoint& endpoint) {
    return toC(endpoint, endpoint.type);
}

void copyEndpoints(radar_endpoint (&to)[RADAR_CHANNELS], const RadarAddress& from) {
    to[RADAR_IMAGE] = toC(from.imageStream);
    to[RADAR_IMAGE_CONTROL] = toC(from.imageCtrl);
    to[RADAR_IMAGE_STATE] = toC(from.imageState);
    to[RADAR_ARPA] = toC(from.arpaStream);
    to[RADAR_ARPA_CONTROL] = toC(from.arpaCtrl);
    to[RADAR_ARPA_STATE] = toC(from.arpaState);
    to[RADAR_ORIGINAL] = toC(from.imageOriginal);
    for (std::size_t i = 0; i < InfoDeviceEndpoints::size(); ++i)
        to[RADAR_INFORMATION_DEVICE + i] = toC(from.infoDev[i]);
}

static_assert(RADAR_IMAGE == int{radar::Image} && RADAR_IMAGE_STATE == int{radar::ImageState} &&
              RADAR_ARPA_STATE == int{radar::ArpaState} && RADAR_ORIGINAL == int{radar::Original} &&
              RADAR_INFORMATION_DEVICE == int{radar::InformationDevice});
static_assert(RADAR_ORIGIN_SEARCH == static_cast<int>(radar::LocalAddress::Origin::Search));
static_assert(RADAR_LOCAL_LOST == static_cast<int>(radar::Event::Kind::LocalLost));
static_assert(RADAR_REASON_DISPLACED == static_cast<int>(radar::Event::Reason::Displaced));
static_assert(RADAR_CHANGED_TCP == static_cast<unsigned>(radar::Event::Tcp));
static_assert(RADAR_STREAM_REFUSED == static_cast<int>(radar::StreamEvent::Kind::Refused));
static_assert(RADAR_WHY_OTHERS_JOINED == static_cast<int>(radar::StreamEvent::Why::OthersJoined));
static_assert(RADAR_MOST_AT_ONCE == radar::Stream::kMostAtOnce);

radar_entry toC(const radar::Radar& radar) {
    radar_entry entry{};
    entry.size = sizeof entry;
    copyText(entry.name, radar.name);
    entry.host_id = radar.hostId;
    entry.source = radar.source;
    entry.age = radar.age.count();
    entry.stream_count = toInt(std::min<std::size_t>(radar.streams.size(), RADAR_MAX_STREAMS));
    for (int i = 0; i < entry.stream_count; ++i)
        copyEndpoints(entry.streams[i], radar.streams[static_cast<std::size_t>(i)]);
    entry.user = radar.user;
    entry.has_tcp = radar.tcp.has_value();
    if (radar.tcp)
        copyEndpoints(entry.tcp, *radar.tcp);
    return entry;
}

radar_local toC(const radar::LocalAddress& address) {
    radar_local local{};
    local.size = sizeof local;
    local.address = address.address;
    local.origin = static_cast<int>(address.origin);
    copyText(local.interface_name, address.interface);
    return local;
}

radar_event toC(const radar::Event& event) {
    radar_event result{};
    result.size = sizeof result;
    result.when = std::chrono::nanoseconds(event.when.time_since_epoch()).count();
    result.kind = static_cast<int>(event.kind);
    result.merged = event.merged;
    result.changes = event.changes;
    result.reason = static_cast<int>(event.reason);
    copyText(result.successor, event.successor);
    result.host_id = event.hostId;
    result.holder_count = toInt(std::min<std::size_t>(event.holders.size(), RADAR_MAX_HOLDERS));
    for (int i = 0; i < result.holder_count; ++i)
        copyText(result.holders[i], event.holders[static_cast<std::size_t>(i)]);
    result.previous = event.previous;
    result.radar = toC(event.radar);
    result.local = toC(event.local);
    return result;
}

radar_stream_event toC(const radar::StreamEvent& event) {
    radar_stream_event result{};
    result.size = sizeof result;
    result.kind = static_cast<int>(event.kind);
    result.why = static_cast<int>(event.why);
    result.endpoint = toC(event.endpoint);
    copyText(result.interface_name, event.interface);
    result.others = event.others;
    result.error = event.error;
    result.missed = event.missed;
    return result;
}

radar_datagram toC(const radar::Datagram& datagram) {
    return {sizeof(radar_datagram),
            datagram.data,
            datagram.size,
            datagram.arrival.time_since_epoch().count(),
            datagram.source,
            net::HtoNs(datagram.sourcePort),
            0};
}

radar_statistics toC(const radar::Statistics& statistics) {
    radar_statistics result{};
    result.size = sizeof result;
    result.datagrams = statistics.datagrams;
    result.bytes = statistics.bytes;
    result.cut = statistics.cut;
    result.datagrams_last_second = statistics.lastSecond.datagrams;
    result.bytes_last_second = statistics.lastSecond.bytes;
    result.datagrams_last_ten_seconds = statistics.lastTenSeconds.datagrams;
    result.bytes_last_ten_seconds = statistics.lastTenSeconds.bytes;
    result.median_gap = statistics.medianGap.count();
    result.gap_99 = statistics.gap99.count();
    result.longest_gap = statistics.longestGap.count();
    result.since_last = statistics.sinceLast ? statistics.sinceLast->count() : -1;
    result.dropped_at_socket = statistics.droppedAtSocket;
    result.dropped_at_interface = statistics.droppedAtInterface;
    result.missing = statistics.missing;
    result.repeated = statistics.repeated;
    result.reordered = statistics.reordered;
    return result;
}

bool isInRange(const radar_stream_options& options) {
    return isStreamNumber(options.number) && options.sequence_width >= 0 && options.sequence_width <= 8;
}

radar::StreamOptions fromC(const radar_stream_options& options) {
    radar::StreamOptions result;
    result.number = options.number;
    if (options.receive_buffer != 0)
        result.receiveBuffer = options.receive_buffer;
    if (options.largest_datagram != 0)
        result.largestDatagram = options.largest_datagram;
    if (options.sequence_width != 0)
        result.sequence = {options.sequence_offset, static_cast<std::size_t>(options.sequence_width),
                           options.sequence_little_endian == 0, options.sequence_modulus};
    return result;
}

} // namespace

const char* radar_version() {
    return radar::version();
}

int radar_groups(int host_id, int stream, radar_endpoint endpoints[RADAR_CHANNELS]) {
    return guarded([&] {
        const std::vector<RadarAddress> streams = radar::groups(host_id);
        if (endpoints == nullptr || !isStreamNumber(stream) ||
            static_cast<std::size_t>(stream) >= streams.size())
            return -EINVAL;
        radar_endpoint copy[RADAR_CHANNELS];
        copyEndpoints(copy, streams[static_cast<std::size_t>(stream)]);
        std::copy(std::begin(copy), std::end(copy), endpoints);
        return 0;
    });
}

int radar_watch_new(radar_watch** watch, const radar_watch_options* options) {
    if (watch == nullptr || (options != nullptr && !isKnown(options)))
        return -EINVAL;
    return guarded([&] {
        const radar::Watch::Options converted{options != nullptr ? options->local_address : 0};
        *watch = new radar_watch{radar::Watch(converted)};
        return 0;
    });
}

void radar_watch_free(radar_watch* watch) {
    delete watch;
}

int radar_watch_next(radar_watch* watch, radar_event* event, int timeout) {
    if (watch == nullptr || !isKnown(event))
        return -EINVAL;
    return guarded([&] {
        const std::optional<radar::Event> next = watch->watch.next(milliseconds(timeout));
        if (next)
            *event = toC(*next);
        return int{next.has_value()};
    });
}

int radar_watch_descriptor(const radar_watch* watch) {
    return watch == nullptr ? -EINVAL : guarded([&] { return watch->watch.descriptor(); });
}

int radar_watch_radars(const radar_watch* watch, radar_entry* radars, size_t capacity) {
    if (watch == nullptr || (capacity > 0 && !isKnown(radars)))
        return -EINVAL;
    return guarded([&] {
        const std::vector<radar::Radar> all = watch->watch.radars();
        for (std::size_t i = 0; i < std::min(capacity, all.size()); ++i)
            radars[i] = toC(all[i]);
        return toInt(all.size());
    });
}

int radar_watch_find(const radar_watch* watch, const char* name, radar_entry* radar) {
    if (watch == nullptr || name == nullptr || !isKnown(radar))
        return -EINVAL;
    return guarded([&] {
        const std::optional<radar::Radar> found = watch->watch.find(name);
        if (found)
            *radar = toC(*found);
        return int{found.has_value()};
    });
}

int radar_watch_local(const radar_watch* watch, radar_local* local) {
    if (watch == nullptr || !isKnown(local))
        return -EINVAL;
    return guarded([&] {
        *local = toC(watch->watch.localAddress());
        return 0;
    });
}

int radar_watch_renumber(radar_watch* watch, const char* name) {
    if (watch == nullptr || name == nullptr)
        return -EINVAL;
    return guarded([&] { return watch->watch.renumber(name) ? 0 : -ENOENT; });
}

int radar_watch_reset(radar_watch* watch) {
    return watch == nullptr ? -EINVAL : guarded([&] { return watch->watch.reset() ? 0 : -EADDRNOTAVAIL; });
}

int radar_recording_open(radar_recording** recording, const char* path, double speed, int streams) {
    if (recording == nullptr || path == nullptr || !(speed >= 0) || streams < 0)
        return -EINVAL;
    return guarded([&] {
        *recording = new radar_recording{radar::openRecording(path, speed, static_cast<unsigned>(streams))};
        return 0;
    });
}

void radar_recording_free(radar_recording* recording) {
    delete recording;
}

uint32_t radar_recording_address(const radar_recording* recording) {
    return recording == nullptr ? 0 : recording->recording.localAddress();
}

int radar_recording_is_over(const radar_recording* recording) {
    return recording == nullptr ? -EINVAL : int{recording->recording.isOver()};
}

int64_t radar_recording_dropped(const radar_recording* recording) {
    return recording == nullptr ? -EINVAL : static_cast<int64_t>(recording->recording.dropped());
}

int radar_stream_new(radar_stream** stream, const radar_watch* watch, const char* name, int channel,
                     const radar_stream_options* options) {
    if (stream == nullptr || watch == nullptr || name == nullptr || !isChannel(channel) ||
        (options != nullptr && !(isKnown(options) && isInRange(*options))))
        return -EINVAL;
    return guarded([&] {
        const radar::StreamOptions converted = options != nullptr ? fromC(*options) : radar::StreamOptions();
        *stream = new radar_stream{radar::Stream(watch->watch, name, channel, converted)};
        return 0;
    });
}

void radar_stream_free(radar_stream* stream) {
    delete stream;
}

int radar_stream_read(radar_stream* stream, radar_datagram* datagrams, size_t count, int timeout) {
    if (stream == nullptr || count == 0 || !isKnown(datagrams))
        return -EINVAL;
    return guarded([&] {
        std::array<radar::Datagram, RADAR_MOST_AT_ONCE> taken;
        const std::size_t number =
            stream->stream.read(taken.data(), std::min(count, taken.size()), milliseconds(timeout));
        for (std::size_t i = 0; i < number; ++i)
            datagrams[i] = toC(taken[i]);
        return toInt(number);
    });
}

int radar_stream_next_event(radar_stream* stream, radar_stream_event* event) {
    if (stream == nullptr || !isKnown(event))
        return -EINVAL;
    return guarded([&] {
        const std::optional<radar::StreamEvent> next = stream->stream.nextEvent();
        if (next)
            *event = toC(*next);
        return int{next.has_value()};
    });
}

int radar_stream_descriptor(const radar_stream* stream) {
    return stream == nullptr ? -EINVAL : guarded([&] { return stream->stream.descriptor(); });
}

int radar_stream_statistics(const radar_stream* stream, radar_statistics* statistics) {
    if (stream == nullptr || !isKnown(statistics))
        return -EINVAL;
    return guarded([&] {
        *statistics = toC(stream->stream.statistics());
        return 0;
    });
}

int radar_control_new(radar_control** control, const radar_watch* watch, const char* name, int channel,
                      int number) {
    if (control == nullptr || watch == nullptr || name == nullptr || !isChannel(channel) ||
        !isStreamNumber(number))
        return -EINVAL;
    return guarded([&] {
        *control = new radar_control{radar::Control(watch->watch, name, channel, number)};
        return 0;
    });
}

void radar_control_free(radar_control* control) {
    delete control;
}

int radar_control_send(radar_control* control, const void* data, size_t length) {
    if (control == nullptr || (data == nullptr && length > 0))
        return -EINVAL;
    return guarded([&] { return control->control.send(data, length) ? 0 : -errno; });
}
