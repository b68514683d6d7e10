// A recording in place of a LAN: Watches and streams hear it as they hear radars, and nothing needs a
// network.

#include "../profile_directory.h"
#include "../records.h"
#include "../wait.h"

#include <RadarWatch/radarrecording.h>
#include <RadarWatch/radarstream.h>
#include <RadarWatch/recording/pcapng.h>

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>

#include <gmock/gmock.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;
using radar::Event;
using radar::Stream;
using radar::StreamEvent;
using radar::Watch;

constexpr std::size_t kLength = 1400; // of a datagram, bytes
constexpr auto kBegin = 1700000000s;  // long ago
constexpr auto kStep = 10ms;          // between two datagrams

const NetAddress kSource = endpoint("10.20.1.1", 40000);

class RecordedLan : public testing::Test {
protected:
    static NetAddress imageOf(std::uint8_t id) {
        return plan::announcedEndpoint(id, &RadarAddress::imageStream, 0);
    }
    static std::string numbered(std::uint32_t number) {
        std::string payload(kLength, 'p');
        std::memcpy(payload.data(), &number, sizeof number);
        return payload;
    }
    static std::uint32_t numberOf(const radar::Datagram& datagram) {
        std::uint32_t number = 0;
        std::memcpy(&number, datagram.data, sizeof number);
        return number;
    }
    /// North and South, with so many datagrams each, in turn.
    std::string record(std::uint32_t datagrams, const std::string& end = "") const {
        std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
        const NetAddress discovery = endpoint(wire::kDiscovery.address, wire::kDiscovery.port);
        const std::map<std::uint8_t, std::string> radars = {{20, "North"}, {30, "South"}};
        for (const auto& [id, name] : radars)
            appendDatagramBlock(bytes, 0,
                                {kBegin, kSource, discovery, protocol::composeAnnouncement(name, id, 1)}, "");
        for (std::uint32_t i = 0; i < datagrams; ++i)
            for (const auto& [id, name] : radars)
                appendDatagramBlock(bytes, 0, {kBegin + i * kStep, kSource, imageOf(id), numbered(i)}, "");
        m_directory.write(bytes + end, "file");
        return m_directory.path() / "file";
    }
    /// Takes what comes until there is nothing more.
    static std::vector<std::uint32_t> readAll(Stream& stream, const radar::Recording& recording) {
        std::vector<std::uint32_t> numbers;
        radar::Datagram datagrams[Stream::kMostAtOnce];
        for (;;) {
            const bool last = recording.isOver();
            const std::size_t count = stream.read(datagrams, std::size(datagrams), 100ms);
            for (std::size_t i = 0; i < count; ++i) {
                const auto number = numberOf(datagrams[i]);
                EXPECT_EQ(datagrams[i].size, kLength);
                EXPECT_EQ(datagrams[i].arrival.time_since_epoch(), kBegin + number * kStep);
                EXPECT_EQ(datagrams[i].source, std::uint32_t{kSource.ip});
                EXPECT_EQ(net::HtoNs(datagrams[i].sourcePort), std::uint16_t{kSource.port});
                numbers.push_back(number);
            }
            while (stream.nextEvent())
                continue;
            if (last && count == 0)
                return numbers;
        }
    }
    static std::optional<Event> next(Watch& watch, Event::Kind kind) {
        while (auto event = watch.next(20s))
            if (event->kind == kind)
                return event;
        return std::nullopt;
    }

    const ProfileDirectory m_directory;
};

std::vector<std::uint32_t> upTo(std::uint32_t count) {
    std::vector<std::uint32_t> numbers(count);
    for (std::uint32_t i = 0; i < count; ++i)
        numbers[i] = i;
    return numbers;
}

TEST_F(RecordedLan, GivesEveryStreamAllThatWasRecordedInItsOrder) {
    constexpr std::uint32_t kDatagrams = 1000; // more than sockets hold
    const radar::Recording recording = radar::openRecording(record(kDatagrams), 0, 2);
    Watch watch(Watch::Options{recording.localAddress()});
    ASSERT_TRUE(next(watch, Event::Kind::Appeared));
    const auto south = next(watch, Event::Kind::Appeared);
    ASSERT_TRUE(south);
    EXPECT_EQ(south->radar.hostId, 30);
    EXPECT_EQ(south->radar.source, std::uint32_t{kSource.ip});
    EXPECT_EQ(watch.localAddress().interface, "recording");
    radar::StreamOptions exact;
    exact.largestDatagram = kLength;
    Stream north(watch, "North", radar::Image, exact);
    std::atomic<std::uint32_t> heard = 0;
    {
        const Stream listening(watch, "South", radar::Image,
                               [&](const radar::Datagram& datagram) {
                                   EXPECT_EQ(numberOf(datagram), heard);
                                   ++heard;
                               },
                               {}, {});
        EXPECT_EQ(readAll(north, recording), upTo(kDatagrams));
        EXPECT_TRUE(comesTrue([&] { return heard == kDatagrams; }));
    }
    EXPECT_EQ(recording.dropped(), 0U);
    EXPECT_EQ(north.statistics().cut, 0U);
    EXPECT_EQ(north.statistics().datagrams, kDatagrams);
    radar::Control control(watch, "North", radar::ImageControl);
    EXPECT_TRUE(control.send("to nobody", 9));
}

TEST_F(RecordedLan, StandsUntilAStreamListensAndThenKeepsTheRecordedPace) {
    constexpr std::uint32_t kDatagrams = 50;
    const radar::Recording recording = radar::openRecording(record(kDatagrams), 2);
    Watch watch(Watch::Options{recording.localAddress()});
    ASSERT_TRUE(next(watch, Event::Kind::Appeared));
    EXPECT_FALSE(recording.isOver());
    const auto begin = std::chrono::steady_clock::now();
    Stream south(watch, "South", radar::Image);
    EXPECT_EQ(readAll(south, recording), upTo(kDatagrams));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, (kDatagrams - 1) * kStep / 2);
}

TEST_F(RecordedLan, LeavesAStreamBehindThatTakesNothing) {
    constexpr std::uint32_t kDatagrams = 1000;
    const radar::Recording recording = radar::openRecording(record(kDatagrams), 0, 2);
    Watch watch(Watch::Options{recording.localAddress()});
    const Stream idle(watch, "South", radar::Image);
    Stream north(watch, "North", radar::Image);
    EXPECT_EQ(readAll(north, recording), upTo(kDatagrams));
    EXPECT_GT(recording.dropped(), 0U);
    EXPECT_LT(recording.dropped(), kDatagrams);
}

TEST_F(RecordedLan, EndsWithItsLastCopy) {
    std::optional<radar::Recording> recording = radar::openRecording(record(1), 0, 0);
    radar::Recording copy = *recording;
    Watch watch(Watch::Options{copy.localAddress()});
    Stream north(watch, "North", radar::Image);
    ASSERT_TRUE(next(watch, Event::Kind::Appeared));
    const auto has = [&](StreamEvent::Kind kind) {
        return comesTrue([&] {
            const auto event = north.nextEvent();
            return event && event->kind == kind;
        });
    };
    EXPECT_TRUE(has(StreamEvent::Kind::Started));
    const ::pid_t child = ::fork();
    if (child == 0) {
        recording.reset();
        { const radar::Recording last = std::move(copy); }
        std::_Exit(0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    recording.reset();
    EXPECT_EQ(watch.localAddress().address, copy.localAddress());
    copy = radar::openRecording(record(1), 0, 0);
    EXPECT_NE(watch.localAddress().address, copy.localAddress());
    EXPECT_TRUE(next(watch, Event::Kind::LocalLost));
    EXPECT_TRUE(has(StreamEvent::Kind::Stopped));
}

TEST_F(RecordedLan, RefusesWhatIsNoRecordingAndTellsOfOneThatIsBroken) {
    EXPECT_THROW(radar::openRecording(m_directory.path() / "nowhere"), std::system_error);
    m_directory.write("no recording", "other");
    EXPECT_THROW(radar::openRecording(m_directory.path() / "other"), std::runtime_error);
    EXPECT_THROW(radar::openRecording(record(1), -1), std::invalid_argument);
    testing::internal::CaptureStderr();
    const radar::Recording recording = radar::openRecording(record(1, "\x06"), 0, 0);
    const Watch watch(Watch::Options{recording.localAddress()});
    EXPECT_TRUE(comesTrue([&] { return recording.isOver(); }));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr("RadarWatch: recording ends early: " + record(1) + ": broken at byte "));
}

} // namespace
