// The classes of RadarWatch, while each of their system calls and allocations fails in turn.
#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>

#include <tests/failures_fixture.h>

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace std::chrono_literals;
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

void streamRead() {
    North north;
    Watch watch(here());
    radar::Stream stream(watch, "North", radar::Image);
    try {
        stream.descriptor();
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "thrown: %s\n", error.code().message().c_str());
        stream.descriptor();
    }
    radar::Datagram datagrams[4];
    EXPECT_TRUE(inTheEnd([&] {
        north.announce();
        north.sendImage();
        while (const auto event = stream.nextEvent())
            tell(*event);
        return stream.read(datagrams, 4, 5ms) > 0;
    }));
    stream.statistics();
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

// Quiet is what is asked again within a second, what the system counts besides, and what a membership makes
// up for; memory, where a Watch that lacked it catches up.
const std::vector<std::string_view> kLooks = {"getifaddrs", "poll",      "recv",           "recvfrom",
                                              "recvmmsg",   "SO_RCVBUF", "SO_BINDTODEVICE"};
const std::vector<std::string_view> kLooksAndCounters = {
    "getifaddrs",      "poll",        "recv", "recvfrom", "recvmmsg", "SO_RCVBUF",
    "SO_BINDTODEVICE", "SO_RCVTIMEO", "open", "read"};
const Scenario kScenarios[] = {
    {"Watches", &watches, kLooks, true},
    {"Pool", [] { radar::Pool({2}); }},
    {"StreamRead", &streamRead, kLooksAndCounters, true},
    {"StreamOnAThread", [] { streamCalledBack({}); }, kLooksAndCounters, true},
    {"StreamOfAPool", [] { streamCalledBack(radar::Pool({})); }, kLooksAndCounters, true},
};

INSTANTIATE_TEST_SUITE_P(RadarWatch, EachCall, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(RadarWatch, EachAllocation, testing::ValuesIn(kScenarios), nameOf);

} // namespace
