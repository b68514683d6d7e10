// A recording in place of a LAN: Watches and streams hear it as they hear radars, and nothing needs a
// network.
#include "../faults.h"
#include "../profile_directory.h"
#include "../records.h"

#include <RadarWatch/radarrecording.h>
#include <RadarWatch/radarstream.h>
#include <RadarWatch/recording/pcapng.h>

#include <UdpSocket/protocol/announcement.h>

namespace {

using namespace radar::recording;
using radar::Event;
using radar::Recording;
using radar::Stream;
using radar::StreamEvent;
using radar::Watch;

constexpr std::size_t kLength = 1400;      // of a datagram, bytes
constexpr auto kBegin = 1700000000s;       // long ago
constexpr auto kStep = 10ms;               // between two datagrams
constexpr std::uint32_t kDatagrams = 1000; // more than sockets hold

const NetAddress kSource = endpoint("10.20.1.1", 40000);

std::uint32_t numberOf(const radar::Datagram& datagram) {
    std::uint32_t number = 0;
    std::memcpy(&number, datagram.data, sizeof number);
    return number;
}

class RecordedLan : public testing::Test {
protected:
    static void announce(std::string& bytes, const char* name, int id, const NetAddress& source,
                         Time time = kBegin) {
        appendDatagramBlock(bytes, 0,
                            {time, source, endpoint(wire::kDiscovery.address, wire::kDiscovery.port),
                             protocol::composeAnnouncement(name, static_cast<std::uint8_t>(id), 1)},
                            "");
    }
    /// @return its path
    std::string file(const std::string& bytes) const {
        m_directory.write(sectionBlock("a test") + interfaceBlock("eth0") + bytes, "file");
        return m_directory.path() / "file";
    }
    /// A file with North and South, and so many datagrams of each, in turn.
    std::string record(std::uint32_t datagrams, const std::string& end = "") const {
        std::string bytes;
        announce(bytes, "North", 20, kSource);
        announce(bytes, "South", 30, kSource);
        for (std::uint32_t i = 0; i < datagrams; ++i)
            for (const int id : {20, 30}) {
                std::string payload(kLength, 'p');
                std::memcpy(payload.data(), &i, sizeof i);
                appendDatagramBlock(
                    bytes, 0, {kBegin + i * kStep, kSource, radar::groups(id)[0].imageStream, payload}, "");
            }
        return file(bytes + end);
    }
    /// Whether a stream is given so many datagrams, and no other ones.
    static bool readsAll(Stream& stream, const Recording& recording, std::uint32_t expected) {
        std::uint32_t next = 0;
        radar::Datagram datagrams[Stream::kMostAtOnce];
        for (;;) {
            const bool last = recording.isOver();
            const std::size_t count = stream.read(datagrams, std::size(datagrams), 20ms);
            for (std::size_t i = 0; i < count; ++i, ++next) {
                EXPECT_EQ(numberOf(datagrams[i]), next);
                EXPECT_EQ(datagrams[i].size, kLength);
                EXPECT_EQ(datagrams[i].arrival.time_since_epoch(), kBegin + next * kStep);
                EXPECT_EQ(datagrams[i].source, std::uint32_t{kSource.ip});
                EXPECT_EQ(net::HtoNs(datagrams[i].sourcePort), std::uint16_t{kSource.port});
            }
            while (stream.nextEvent())
                continue;
            if (last && count == 0)
                return next == expected;
        }
    }
    static std::optional<Event> next(Watch& watch, Event::Kind kind) {
        while (auto event = watch.next(20s))
            if (event->kind == kind)
                return event;
        return std::nullopt;
    }

    static bool tells(Stream& stream, StreamEvent::Kind kind) {
        return comesTrue([&] {
            const auto event = stream.nextEvent();
            return event && event->kind == kind;
        });
    }

    const ProfileDirectory m_directory;
};

TEST_F(RecordedLan, GivesEveryStreamAllThatWasRecordedInItsOrder) {
    const Recording recording = radar::openRecording(record(kDatagrams), 0, 2);
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
    const Stream listening(watch, "South", radar::Image, [&](const radar::Datagram& datagram) {
        EXPECT_EQ(numberOf(datagram), heard++);
        if (const pid_t child = heard == 100 ? ::fork() : -1; child == 0) {
            ::fcloseall(); // as exit does
            std::_Exit(0);
        } else if (child > 0) {
            ::waitpid(child, nullptr, 0);
        }
    });
    EXPECT_FALSE(comesTrue([&] { return heard == kDatagrams; }, 100ms))
        << "all waits for a stream without room";
    EXPECT_TRUE(readsAll(north, recording, kDatagrams));
    EXPECT_TRUE(comesTrue([&] { return heard == kDatagrams; }));
    EXPECT_EQ(recording.dropped(), 0U);
    EXPECT_EQ(north.statistics().cut, 0U);
    radar::Control control(watch, "North", radar::ImageControl);
    EXPECT_TRUE(control.send("to nobody", 9));
}

TEST_F(RecordedLan, StandsUntilAsManyStreamsListenAsItWaitsForAndThenKeepsTheRecordedPace) {
    const Recording recording = radar::openRecording(record(50), 2, 2);
    Watch watch(Watch::Options{recording.localAddress()});
    std::vector<long> descriptors;
    for (int i = 0; i < 20; ++i) { // one after the other
        descriptors.push_back(ProcessResources::now().descriptors);
        Stream stream(watch, "North", radar::Image);
        EXPECT_TRUE(tells(stream, StreamEvent::Kind::Started));
    }
    EXPECT_LE(descriptors.back(), descriptors.front() + 10) << "they are forgotten with those that follow";
    Stream north(watch, "North", radar::Image);
    radar::Datagram datagram;
    const std::clock_t before = std::clock();
    EXPECT_FALSE(comesTrue([&] { return north.read(&datagram, 1, 10ms) > 0; }, 200ms));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20) << "of the processor, to wait";
    EXPECT_FALSE(recording.isOver());
    const Stream south(watch, "South", radar::Image);
    EXPECT_GE(timeOf([&] { EXPECT_TRUE(readsAll(north, recording, 50)); }), 49 * kStep / 2);
}

TEST_F(RecordedLan, RepeatsWhatARadarAnnouncedLast) {
    const NetAddress moved = endpoint("10.20.1.2", 40000);
    std::string bytes;
    announce(bytes, "North", 20, kSource);
    announce(bytes, "North", 20, moved, kBegin + 3s);
    announce(bytes, "North", 20, moved, kBegin + 7s); // until then all are repeated
    const Recording recording = radar::openRecording(file(bytes), 5, 0);
    Watch watch(Watch::Options{recording.localAddress()});
    ASSERT_TRUE(next(watch, Event::Kind::Appeared));
    const auto changed = watch.next(20s);
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->changes, Event::Source);
    EXPECT_EQ(changed->radar.source, std::uint32_t{moved.ip});
    EXPECT_FALSE(watch.next(1s)); // in which it is announced again
}

TEST_F(RecordedLan, LeavesAStreamBehindThatTakesNothing) {
    const Recording recording = radar::openRecording(record(kDatagrams), 0, 2);
    Watch watch(Watch::Options{recording.localAddress()});
    const Stream idle(watch, "South", radar::Image);
    Stream north(watch, "North", radar::Image);
    EXPECT_TRUE(readsAll(north, recording, kDatagrams));
    EXPECT_GT(recording.dropped(), 0U);
    EXPECT_LT(recording.dropped(), kDatagrams);
}

TEST_F(RecordedLan, EndsWithItsLastCopy) {
    std::optional<Recording> recording = radar::openRecording(record(1), 0, 0);
    Recording copy = *recording;
    Watch watch(Watch::Options{copy.localAddress()});
    Stream north(watch, "North", radar::Image);
    EXPECT_TRUE(tells(north, StreamEvent::Kind::Started));
    const auto child = [&] {
        recording.reset();
        { const Recording last = std::move(copy); }
        std::_Exit(7);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(7), "");
    recording.reset();
    EXPECT_EQ(watch.localAddress().address, copy.localAddress());
    copy = radar::openRecording(record(1), 0, 0);
    EXPECT_TRUE(next(watch, Event::Kind::LocalLost));
    EXPECT_TRUE(tells(north, StreamEvent::Kind::Stopped));
}

TEST_F(RecordedLan, RefusesASpeedThatIsNoneAndTellsOfAFileThatIsBrokenOrCannotBeRead) {
    EXPECT_THROW(radar::openRecording(record(1), -1), std::invalid_argument);
    EXPECT_THROW(radar::openRecording(m_directory.path(), 1), std::system_error);
    testing::internal::CaptureStderr();
    {
        const Recording recording = radar::openRecording(record(1), 0, 0);
        const Fault fault("pread", EIO);
        const Watch watch(Watch::Options{recording.localAddress()});
        EXPECT_TRUE(comesTrue([&] { return recording.isOver(); }));
    }
    const std::string told = "RadarWatch: recording ends early: " + record(1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told + ": Input/output error at byte 0\n");
    testing::internal::CaptureStderr();
    const Recording recording = radar::openRecording(record(1, "\x06"), 0, 0);
    const Watch watch(Watch::Options{recording.localAddress()});
    EXPECT_TRUE(comesTrue([&] { return recording.isOver(); }));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(told + ": broken at byte "));
}

} // namespace
