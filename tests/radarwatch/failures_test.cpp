// The classes of RadarWatch, while each of their system calls and allocations fails in turn.
#include <RadarWatch/radarrecording.h>
#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>
#include <RadarWatch/radarwatch_c.h>
#include <RadarWatch/recording/blocks.h>
#include <RadarWatch/recording/recorder.h>

#include <tests/failures_fixture.h>

#include <arpa/inet.h>

namespace {

using radar::Watch;

Watch::Options here() {
    Watch::Options options;
    options.localAddress = Source::local();
    return options;
}

/// Announces North, host id 20, and sends its image.
class North {
public:
    void announce() { m_radar.send(m_announcement); }
    void sendImage() { m_image.send("image"); }

private:
    const std::string m_announcement = northsAnnouncement();
    Source m_radar{wire::kDiscovery};
    Source m_image{"236.6.7.99", 6131};
};

void watches() {
    North north;
    const GroupListener listener({"236.6.7.100", 6132}); // North's image control
    bool found = false;
    bool appeared = false;
    std::atomic<bool> told = false;
    Watch watch(here());
    const Watch calling(
        [&](const radar::Event& event) {
            takeMemory();
            told = told || event.kind == radar::Event::Kind::Appeared;
        },
        here());
    radar::Control control(watch, "North", radar::ImageControl);
    watch.next(10ms);
    EXPECT_TRUE(inTheEnd([&] {
        north.announce();
        pace();
        found = found || watch.localAddress().address == Source::local();
        while (const auto event = watch.next(0ms))
            appeared = appeared || event->kind == radar::Event::Kind::Appeared;
        return found && appeared && (told || isSaid("an event was lost")) && control.send("set", 3) &&
               soon([&] { return listener.hears(3); });
    }));
    EXPECT_TRUE(watch.find("North").has_value());
    watch.radars();
    EXPECT_TRUE(watch.renumber("North"));
    EXPECT_TRUE(watch.reset());
}

void tell(const radar::StreamEvent& event) {
    if (event.kind == radar::StreamEvent::Kind::Refused)
        std::fprintf(stderr, "refused: %s\n", std::strerror(event.error));
}

/// @param pool none: a thread of the stream's own
void streamCalledBack(const std::optional<radar::Pool>& pool) {
    North north;
    std::atomic<int> received = 0;
    Watch watch(here());
    radar::StreamOptions options;
    options.pool = pool;
    const radar::Stream stream(
        watch, "North", radar::Image,
        [&](const radar::Datagram&) {
            takeMemory();
            ++received;
        },
        [](const radar::StreamEvent& event) {
            takeMemory();
            tell(event);
        },
        options);
    EXPECT_TRUE(inTheEnd([&] {
        north.announce();
        north.sendImage();
        pace();
        return received > 0;
    }));
}

/// A radar that connects to the display, for its image and for what it is told; its targets nobody serves.
void overTcp() {
    constexpr unsigned short kImage = 7001;
    constexpr unsigned short kControl = 7002;
    const Source north{wire::kDiscovery};
    std::string announcement;
    {
        const Sound sound;
        announcement = AnnouncementBytes(222, "North")
                           .at(22, 1)
                           .at(30, 1) // extended, offers TCP
                           .at(31, endpoint(kLocalAddress, kImage))
                           .at(67, 2) // a client
                           .at(37, endpoint(kLocalAddress, kControl))
                           .at(68, 2) // likewise
                           .at(49, endpoint(kLocalAddress, 7003))
                           .at(70, 1); // a server
    }
    Watch watch(here());
    radar::Stream image(watch, "North:TCP", radar::Image);
    radar::Stream targets(watch, "North:TCP", radar::Arpa);
    radar::Control control(watch, "North:TCP", radar::ImageControl);
    const auto isSent = [&] {
        const bool sent = control.send("set", 3);
        if (!sent)
            std::fprintf(stderr, "control: %s\n", std::strerror(errno));
        return sent;
    };
    EXPECT_TRUE(inTheEnd([&] {
        if (isSaid("select::rfds")) // which ends the accepting
            return true;
        north.send(announcement);
        pace();
        for (radar::Stream* stream : {&image, &targets})
            while (const auto event = stream->nextEvent())
                tell(*event);
        std::optional<tcp_test::Peer> sends;
        std::optional<tcp_test::Peer> obeys;
        const auto connect = [&] {
            const Sound sound;
            return sends.emplace().on(::connect, kImage, kLocalAddress) == 0 && sends->send("image") &&
                   obeys.emplace().on(::connect, kControl, kLocalAddress) == 0;
        };
        if (!connect())
            return isSent(); // which says why not
        radar::Datagram piece;
        bool isHeard = false;
        const auto works = [&] {
            isHeard = isHeard || image.read(&piece, 1, 5ms) > 0;
            return isHeard && isSent();
        };
        const bool worked = comesTrue(works, 200ms);
        const Sound sound;
        return worked && obeys->read(3) == "set";
    }));
}

template <class Structure>
Structure sized() {
    Structure structure{};
    structure.size = sizeof structure;
    return structure;
}

/// Each call again until it is not refused.
void cInterface() {
    const auto insist = [](auto call) {
        int result;
        while ((result = call()) < 0)
            std::fprintf(stderr, "refused: %s\n", std::strerror(-result));
        return result;
    };
    North north;
    auto options = sized<radar_watch_options>();
    options.local_address = Source::local();
    radar_watch* watch = nullptr;
    radar_stream* stream = nullptr;
    radar_control* control = nullptr;
    insist([&] { return radar_watch_new(&watch, &options); });
    insist([&] { return radar_stream_new(&stream, watch, "North", RADAR_IMAGE, nullptr); });
    insist([&] { return radar_control_new(&control, watch, "North", RADAR_IMAGE_CONTROL, 0); });
    insist([&] { return radar_stream_descriptor(stream); });
    auto entry = sized<radar_entry>();
    auto event = sized<radar_event>();
    auto streamEvent = sized<radar_stream_event>();
    auto datagram = sized<radar_datagram>();
    EXPECT_TRUE(inTheEnd([&] {
        north.announce();
        north.sendImage();
        pace();
        while (insist([&] { return radar_watch_next(watch, &event, 0); }) > 0)
            continue;
        while (insist([&] { return radar_stream_next_event(stream, &streamEvent); }) > 0)
            std::fprintf(stderr, "event: %s\n", std::strerror(streamEvent.error));
        return insist([&] { return radar_watch_find(watch, "North", &entry); }) == 1 &&
               insist([&] { return radar_stream_read(stream, &datagram, 1, 5); }) > 0 &&
               insist([&] { return radar_control_send(control, "set", 3); }) == 0;
    }));
    auto local = sized<radar_local>();
    auto statistics = sized<radar_statistics>();
    EXPECT_EQ(insist([&] { return radar_watch_radars(watch, &entry, 1); }), 1);
    insist([&] { return radar_watch_local(watch, &local); });
    EXPECT_EQ(local.address, Source::local());
    insist([&] { return radar_stream_statistics(stream, &statistics); });
    EXPECT_EQ(insist([&] { return radar_watch_renumber(watch, "North"); }), 0);
    EXPECT_EQ(insist([&] { return radar_watch_reset(watch); }), 0);
    radar_control_free(control);
    radar_stream_free(stream);
    radar_watch_free(watch);
}

void fixedRadar() {
    FixedRadar fixed;
    const std::string announcement = northsAnnouncement(); // which is not heard beside it
    const Source north(wire::kDiscovery.address, wire::kDiscovery.port, net::transAddr("127.0.0.1"));
    Watch watch;
    bool appeared = false;
    EXPECT_TRUE(inTheEnd([&] {
        fixed.answer();
        north.send(announcement);
        pace();
        while (const auto event = watch.next(0ms))
            appeared = appeared || event->kind == radar::Event::Kind::Appeared;
        return appeared || isSaid("defaults are used");
    }));
    if (isSaid("defaults are used"))
        return;
    const auto found = watch.find("ZQ-7:TCP");
    EXPECT_TRUE(found && found->tcp && found->streams.empty());
    EXPECT_EQ(watch.radars().size(), 1U);
}

/// A file of this process; nothing of it fails.
class OwnFile {
public:
    ~OwnFile() {
        const Sound sound;
        std::filesystem::remove(m_path);
    }
    const std::string& path() const { return m_path; }

private:
    const std::string m_path = "/run/test/" + std::to_string(::getpid());
};

void records() {
    using namespace radar::recording;
    North north;
    const NetAddress image = endpoint("236.6.7.99", 6131);
    const OwnFile file;
    std::uint64_t recorded = 0;
    std::error_code failure;
    {
        radar::recording::Recorder recorder({file.path(), "a test"}, [] {});
        EXPECT_TRUE(inTheEnd([&] {
            try {
                for (const auto& refusal : recorder.listenTo({{"eth0", image.ip, image.port}}))
                    std::fprintf(stderr, "refused: %s\n", std::strerror(refusal.error));
            } catch (const std::bad_alloc&) { // said, since it is tried again
                std::fputs("out of memory\n", stderr);
            }
            north.sendImage();
            pace();
            return recorder.counts().datagrams > 1 || recorder.writer().failure();
        }));
        recorder.finish();
        recorded = recorder.counts().datagrams;
        failure = recorder.writer().failure();
    }
    if (failure)
        std::fprintf(stderr, "failed: %s\n", std::strerror(failure.value()));
    const Sound sound;
    Blocks blocks(file.path()); // which throws where it ends with a part of a block
    std::uint64_t read = 0;
    while (blocks.nextDatagram())
        ++read;
    EXPECT_TRUE(failure ? read <= recorded : read == recorded) << read << " of " << recorded;
}

void replays() {
    using namespace radar::recording;
    const OwnFile file;
    {
        const Sound sound;
        std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
        const NetAddress source = endpoint("10.20.1.1", 40000);
        appendDatagramBlock(bytes, 0, {1s, source, endpoint("236.6.7.5", 6878), northsAnnouncement()}, "");
        appendDatagramBlock(bytes, 0, {1s, source, radar::groups(20)[0].imageStream, "image"}, "");
        std::ofstream(file.path()) << bytes;
    }
    const radar::Recording recording = radar::openRecording(file.path(), 0);
    Watch::Options options;
    options.localAddress = recording.localAddress();
    EXPECT_TRUE(inTheEnd([&] { // a second time where the recording was told that nobody listens any more
        Watch watch(options);
        radar::Stream stream(watch, "North", radar::Image);
        const auto isReceived = [&] {
            radar::Datagram datagrams[4];
            while (const auto event = stream.nextEvent())
                tell(*event);
            return stream.read(datagrams, 4, 5ms) > 0 || recording.isOver();
        };
        return comesTrue(isReceived, 200ms);
    }));
}

// Quiet is what is asked again within a second, what the system counts besides, and what a membership makes
// up for; memory, where a Watch that lacked it catches up.
const std::vector<std::string_view> kLooks = {"getifaddrs", "poll",      "recv",           "recvfrom",
                                              "recvmmsg",   "SO_RCVBUF", "SO_BINDTODEVICE"};
const std::vector<std::string_view> kLooksAndCounters = {
    "getifaddrs",      "poll",        "recv", "recvfrom", "recvmmsg", "SO_RCVBUF",
    "SO_BINDTODEVICE", "SO_RCVTIMEO", "open", "read"};
// A recording may be over before its stream tells what it was refused.
const std::vector<std::string_view> kReplayed = {"getifaddrs", "poll",    "recv",      "recvmmsg",
                                                 "recvmsg",    "sendmsg", "SO_RCVBUF", "SO_RCVTIMEO",
                                                 "open",       "read",    "socketpair"};
const std::vector<std::string_view> kAttempts = {"getifaddrs",     "connect",  "fcntl", "poll",
                                                 "recv",           "recvfrom", "send",  "SO_RCVBUF",
                                                 "SO_BINDTODEVICE"}; // of a TCP client
// What is sent on is repeated until it is done; a Control's port is had before somebody asks why it is not.
const std::vector<std::string_view> kOverTcp = {
    "getifaddrs", "poll", "recv", "recvfrom", "recvmmsg", "SO_RCVBUF", "SO_BINDTODEVICE", "SO_RCVTIMEO",
    "open",       "read", "send", "socket",   "bind",     "connect",   "fcntl",           "SO_REUSEADDR"};
const Scenario kScenarios[] = {
    {"Watches", &watches, kLooks, true},
    {"Pool", [] { radar::Pool({2}); }},
    {"StreamOnAThread", [] { streamCalledBack({}); }, kLooksAndCounters, true},
    {"StreamOfAPool", [] { streamCalledBack(radar::Pool({})); }, kLooksAndCounters, true},
    {"CInterface", &cInterface, kLooksAndCounters, true},
    {"FixedRadar", &fixedRadar, kAttempts, true},
    {"OverTcp", &overTcp, kOverTcp, true},
    {"Records", &records, {"recv", "recvmmsg", "SO_RCVBUF"}, true, {std::strerror(EDQUOT)}}, // of fsync
    {"Replays", &replays, kReplayed, true},
};

/// Whether a call refuses to work without each of its pointers.
template <class... Parameters, class... Arguments>
bool refusesNull(int (*call)(Parameters...), Arguments... arguments) {
    const std::tuple<Parameters...> all{arguments...};
    const auto refuses = [&]<std::size_t left>(std::integral_constant<std::size_t, left>) {
        auto some = all;
        if constexpr (std::is_pointer_v<std::tuple_element_t<left, decltype(some)>>) {
            if (std::exchange(std::get<left>(some), nullptr) != nullptr)
                return std::apply(call, some) == -EINVAL;
        }
        return true;
    };
    return [&]<std::size_t... left>(std::index_sequence<left...>) {
        return (refuses(std::integral_constant<std::size_t, left>()) && ...);
    }
    (std::index_sequence_for<Parameters...>());
}

TEST(CInterface, RefusesWhatIsNotThere) {
    auto options = sized<radar_watch_options>();
    options.local_address = net::transAddr("127.0.0.1");
    radar_watch* watch = nullptr;
    radar_stream* stream = nullptr;
    radar_control* control = nullptr;
    ASSERT_EQ(radar_watch_new(&watch, &options), 0);
    ASSERT_EQ(radar_stream_new(&stream, watch, "North", RADAR_IMAGE, nullptr), 0);
    ASSERT_EQ(radar_control_new(&control, watch, "North", RADAR_IMAGE_CONTROL, 0), 0);
    auto entry = sized<radar_entry>();
    auto local = sized<radar_local>();
    auto event = sized<radar_event>();
    auto streamEvent = sized<radar_stream_event>();
    auto datagram = sized<radar_datagram>();
    auto statistics = sized<radar_statistics>();
    radar_stream* none = nullptr;
    radar_control* nothing = nullptr;
    EXPECT_EQ(radar_groups(16, 0, nullptr), -EINVAL);
    EXPECT_EQ(radar_watch_new(nullptr, &options), -EINVAL);
    EXPECT_TRUE(refusesNull(radar_watch_next, watch, &event, 0));
    EXPECT_TRUE(refusesNull(radar_watch_descriptor, watch));
    EXPECT_TRUE(refusesNull(radar_watch_radars, watch, &entry, 1));
    EXPECT_TRUE(refusesNull(radar_watch_find, watch, "North", &entry));
    EXPECT_TRUE(refusesNull(radar_watch_local, watch, &local));
    EXPECT_TRUE(refusesNull(radar_watch_renumber, watch, "North"));
    EXPECT_TRUE(refusesNull(radar_watch_reset, watch));
    EXPECT_TRUE(refusesNull(radar_stream_new, &none, watch, "North", RADAR_IMAGE, nullptr));
    EXPECT_TRUE(refusesNull(radar_stream_read, stream, &datagram, 1, 0));
    EXPECT_TRUE(refusesNull(radar_stream_next_event, stream, &streamEvent));
    EXPECT_TRUE(refusesNull(radar_stream_descriptor, stream));
    EXPECT_TRUE(refusesNull(radar_stream_statistics, stream, &statistics));
    EXPECT_TRUE(refusesNull(radar_control_new, &nothing, watch, "North", RADAR_IMAGE, 0));
    EXPECT_TRUE(refusesNull(radar_control_send, control, "x", 1));
    EXPECT_EQ(radar_watch_renumber(watch, "North"), -ENOENT);
    radar_control_free(control);
    radar_stream_free(stream);
    radar_watch_free(watch);
}

INSTANTIATE_TEST_SUITE_P(RadarWatch, EachCall, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(RadarWatch, EachAllocation, testing::ValuesIn(kScenarios), nameOf);

} // namespace
