// Calls of RadarWatch's C interface in any order, with radars that announce themselves and send: each byte of
// the input is a call, and those that follow are its arguments. All in a network of its own, on the loopback
// interface, or out of a recording.
#include "support.h"

#include <RadarWatch/radarwatch_c.h>
#include <RadarWatch/recording/pcapng.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/protocol/announcement.h>
#include <lab/private_network.h>

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***);

namespace {

using net::detail::Descriptor;

constexpr std::size_t kHandles = 3; // of a kind
constexpr std::size_t kMostCalls = 64;
constexpr int kPatience = 5; // milliseconds
const in_addr_t kLoopback = htonl(INADDR_LOOPBACK);
constexpr const char* kNames[] = {"North",  "South:User", "North:TCP",
                                  "\xFF\n", "",           "a name that no radar can have"};
constexpr const char* kRecording = "/run/recording.pcapng"; // of the private network

/// Sends as a radar's host does, but is heard on this computer.
class Host {
public:
    Host() {
        const unsigned char loop = 1;
        fuzz::require(m_socket.isOpen() &&
                      net::detail::setOption(m_socket, IPPROTO_IP, IP_MULTICAST_LOOP, loop) &&
                      net::detail::setOption(m_socket, IPPROTO_IP, IP_MULTICAST_IF, in_addr{kLoopback}));
    }
    void send(const std::string& datagram, in_addr_t group, unsigned short port) const {
        net::detail::sendTo(m_socket, datagram.data(), static_cast<int>(datagram.size()),
                            net::detail::makeAddress(group, port), MSG_DONTWAIT);
    }

private:
    Descriptor m_socket = net::detail::openSocket(SOCK_DGRAM);
};

/// What the input says, one byte after the other; zero at its end.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}
    bool isEmpty() const { return m_rest.empty(); }
    unsigned below(unsigned bound) {
        if (m_rest.empty())
            return 0;
        const unsigned value = m_rest.front();
        m_rest.remove_prefix(1);
        return value % bound;
    }
    const char* name() { return kNames[below(std::size(kNames))]; }

private:
    std::basic_string_view<std::uint8_t> m_rest;
};

/// Reads every byte, so that the sanitizer sees those that are not there.
void touch(const void* data, std::size_t size) {
    static volatile unsigned sum = 0;
    const auto* bytes = static_cast<const unsigned char*>(data);
    sum = std::accumulate(bytes, bytes + size, sum);
}

template <std::size_t size>
void requireText(const char (&text)[size]) {
    fuzz::require(std::memchr(text, '\0', size) != nullptr);
}

void look(const radar_entry& radar) {
    fuzz::require(radar.size == sizeof radar && radar.stream_count >= 0 &&
                  radar.stream_count <= RADAR_MAX_STREAMS);
    requireText(radar.name);
}

void look(const radar_event& event) {
    fuzz::require(event.size == sizeof event && event.kind >= RADAR_APPEARED &&
                  event.kind <= RADAR_LOCAL_LOST);
    fuzz::require(event.holder_count >= 0 && event.holder_count <= RADAR_MAX_HOLDERS);
    for (int i = 0; i < event.holder_count; ++i)
        requireText(event.holders[i]);
    look(event.radar);
}

class Caller {
public:
    explicit Caller(Input input) : m_input(input) {}

    void run() {
        for (std::size_t calls = 0; !m_input.isEmpty() && calls < kMostCalls; ++calls)
            call();
    }
    ~Caller() {
        std::ranges::for_each(m_watches, radar_watch_free);
        std::ranges::for_each(m_controls, radar_control_free);
        std::ranges::for_each(m_streams, radar_stream_free);
        std::ranges::for_each(m_recordings, radar_recording_free);
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

private:
    /// A handle, which may be null. @return what every call returns: a result, or an error number
    template <class Handle>
    Handle*& any(std::array<Handle*, kHandles>& handles) {
        return handles[m_input.below(kHandles)];
    }
    static int known(int result) {
        fuzz::require(result > -4096);
        return result;
    }
    /// The right size, now and then a wrong one.
    template <class Structure>
    Structure sized() {
        Structure structure{};
        structure.size = sizeof structure - (m_input.below(16) == 15 ? 1 : 0);
        return structure;
    }

    void call() {
        switch (m_input.below(23)) {
        case 0:
            return newWatch();
        case 1:
            return release(any(m_watches), radar_watch_free);
        case 2:
            return nextEvent();
        case 3:
            return listRadars();
        case 4: {
            auto radar = sized<radar_entry>();
            if (known(radar_watch_find(any(m_watches), m_input.name(), &radar)) == 1)
                look(radar);
            return;
        }
        case 5: {
            auto local = sized<radar_local>();
            if (known(radar_watch_local(any(m_watches), &local)) == 0)
                requireText(local.interface_name);
            return;
        }
        case 6:
            known(radar_watch_renumber(any(m_watches), m_input.name()));
            return;
        case 7:
            known(radar_watch_reset(any(m_watches)));
            return;
        case 8:
            known(radar_watch_descriptor(any(m_watches)));
            known(radar_stream_descriptor(any(m_streams)));
            return;
        case 9:
            return newStream();
        case 10:
            return release(any(m_streams), radar_stream_free);
        case 11:
            return read();
        case 12: {
            auto event = sized<radar_stream_event>();
            if (known(radar_stream_next_event(any(m_streams), &event)) == 1)
                requireText(event.interface_name);
            return;
        }
        case 13: {
            auto statistics = sized<radar_statistics>();
            known(radar_stream_statistics(any(m_streams), &statistics));
            return;
        }
        case 14:
            return newControl();
        case 15:
            return release(any(m_controls), radar_control_free);
        case 16: {
            const std::string data(m_input.below(256), 'x');
            known(radar_control_send(any(m_controls), data.data(), data.size()));
            return;
        }
        case 17: {
            radar_endpoint endpoints[RADAR_CHANNELS];
            if (known(radar_groups(static_cast<int>(m_input.below(80)), static_cast<int>(m_input.below(3)),
                                   endpoints)) == 0)
                touch(endpoints, sizeof endpoints);
            return;
        }
        case 18:
            return announce();
        case 19:
            return sendPicture();
        case 20:
            return openRecording();
        case 21:
            return release(any(m_recordings), radar_recording_free);
        default:
            known(radar_recording_is_over(any(m_recordings)));
            fuzz::require(radar_recording_dropped(any(m_recordings)) >= -EINVAL);
        }
    }

    template <class Handle>
    static void release(Handle*& handle, void (*free)(Handle*)) {
        free(handle);
        handle = nullptr;
    }

    void newWatch() {
        auto options = sized<radar_watch_options>();
        const unsigned origin = m_input.below(4);
        options.local_address = origin == 0   ? 0
                                : origin == 3 ? radar_recording_address(any(m_recordings))
                                              : kLoopback;
        radar_watch*& watch = any(m_watches);
        release(watch, radar_watch_free);
        known(radar_watch_new(&watch, m_input.below(8) == 0 ? nullptr : &options));
        awaitNews(); // of the local address: from then on it hears
    }

    /// Gives the library's thread time to hear what was sent.
    void awaitNews() const {
        pollfd waits[kHandles];
        for (std::size_t i = 0; i < kHandles; ++i)
            waits[i] = {m_watches[i] != nullptr ? radar_watch_descriptor(m_watches[i]) : -1, POLLIN, 0};
        ::poll(waits, kHandles, kPatience);
    }

    void nextEvent() {
        auto event = sized<radar_event>();
        if (known(radar_watch_next(any(m_watches), &event, static_cast<int>(m_input.below(4)))) == 1)
            look(event);
    }

    void listRadars() {
        std::vector<radar_entry> radars(m_input.below(4), sized<radar_entry>());
        const int count = known(radar_watch_radars(any(m_watches), radars.data(), radars.size()));
        for (std::size_t i = 0; i < radars.size() && static_cast<int>(i) < count; ++i)
            look(radars[i]);
    }

    void newStream() {
        auto options = sized<radar_stream_options>();
        options.number = static_cast<int>(m_input.below(3)) - (m_input.below(8) == 7 ? 1 : 0);
        options.sequence_width = static_cast<int>(m_input.below(10));
        options.sequence_offset = m_input.below(2) == 0 ? m_input.below(8) : SIZE_MAX - m_input.below(8);
        options.sequence_modulus = m_input.below(4);
        options.sequence_little_endian = static_cast<int>(m_input.below(2));
        options.receive_buffer = m_input.below(4) * 1000;
        options.largest_datagram = m_input.below(4) * 10;
        const int channel = static_cast<int>(m_input.below(RADAR_CHANNELS + 2)) - 1;
        radar_stream*& stream = any(m_streams);
        release(stream, radar_stream_free);
        known(radar_stream_new(&stream, any(m_watches), m_input.name(), channel,
                               m_input.below(4) == 0 ? nullptr : &options));
    }

    void read() {
        std::vector<radar_datagram> datagrams(m_input.below(40), sized<radar_datagram>());
        const int count = known(radar_stream_read(any(m_streams), datagrams.data(), datagrams.size(),
                                                  static_cast<int>(m_input.below(4))));
        fuzz::require(count <= static_cast<int>(std::min<std::size_t>(datagrams.size(), RADAR_MOST_AT_ONCE)));
        for (int i = 0; i < count; ++i)
            touch(datagrams[static_cast<std::size_t>(i)].data, datagrams[static_cast<std::size_t>(i)].length);
    }

    void newControl() {
        const int channel = static_cast<int>(m_input.below(RADAR_CHANNELS + 2)) - 1;
        radar_control*& control = any(m_controls);
        release(control, radar_control_free);
        known(radar_control_new(&control, any(m_watches), m_input.name(), channel,
                                static_cast<int>(m_input.below(3))));
    }

    std::uint8_t hostId() { return static_cast<std::uint8_t>(16 + m_input.below(2)); }

    void announce() {
        const char* name = m_input.name();
        const std::uint8_t id = hostId();
        std::string datagram = protocol::composeAnnouncement(name, id, 1 + m_input.below(2));
        if (m_input.below(4) == 0) // one that no host of ours sends
            datagram[m_input.below(static_cast<unsigned>(datagram.size()))] =
                static_cast<char>(m_input.below(256));
        m_host.send(datagram, ::inet_addr(wire::kDiscovery.address), wire::kDiscovery.port);
        awaitNews();
    }

    void sendPicture() {
        radar_endpoint endpoints[RADAR_CHANNELS];
        known(radar_groups(hostId(), 0, endpoints));
        m_host.send(std::string(m_input.below(64), 'p'), endpoints[RADAR_IMAGE].address,
                    ntohs(endpoints[RADAR_IMAGE].port));
    }

    void openRecording() {
        radar_recording*& recording = any(m_recordings);
        release(recording, radar_recording_free);
        constexpr double kSpeeds[] = {0, 1, 1000, -1};
        const double speed = kSpeeds[m_input.below(std::size(kSpeeds))];
        const int streams = static_cast<int>(m_input.below(4)) - 1;
        known(radar_recording_open(&recording, m_input.below(8) == 0 ? "/dev/null" : kRecording, speed,
                                   streams));
    }

    Input m_input;
    Host m_host;
    std::array<radar_watch*, kHandles> m_watches{};
    std::array<radar_stream*, kHandles> m_streams{};
    std::array<radar_control*, kHandles> m_controls{};
    std::array<radar_recording*, kHandles> m_recordings{};
};

/// North, and its picture for a second.
void writeRecording() {
    using namespace std::chrono_literals;
    const NetAddress host{kLoopback, htons(40000)};
    const NetAddress discovery{::inet_addr(wire::kDiscovery.address), htons(wire::kDiscovery.port)};
    std::string bytes =
        radar::recording::sectionBlock("a fuzz target") + radar::recording::interfaceBlock("lo");
    for (int i = 0; i < 100; ++i) {
        const auto time = 1700000000s + i * 10ms;
        if (i % 50 == 0)
            radar::recording::appendDatagramBlock(
                bytes, 0, {time, host, discovery, protocol::composeAnnouncement("North", 16, 2)}, "");
        radar::recording::appendDatagramBlock(
            bytes, 0, {time, host, plan::announcedEndpoint(16, &RadarAddress::imageStream, 0), "picture"},
            "");
    }
    std::ofstream(kRecording, std::ios::binary) << bytes;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lab::enterPrivateNetwork();
    // as an interface that leads to radars
    fuzz::require(std::system("ip route add 236.0.0.0/8 dev lo") == 0);
    writeRecording();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Caller(Input(data, size)).run();
    return 0;
}
