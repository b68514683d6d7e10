// Recordings without a network: packets, blocks, files, and the radars that live again from them.

#include "interrupt.h"
#include "profile_directory.h"
#include "records.h"

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/packet.h>
#include <RadarWatch/recording/pcapng.h>
#include <RadarWatch/recording/reader.h>
#include <RadarWatch/recording/replayed_radar.h>
#include <RadarWatch/recording/writer.h>

#include <UdpSocket/protocol/announcement.h>

#include <numeric>

namespace {

using namespace radar::recording;
using protocol::composeAnnouncement;

const NetAddress kFrom = endpoint("10.20.1.1", 40000);
const NetAddress kDiscovery = endpoint(wire::kDiscovery.address, wire::kDiscovery.port);

std::string packet(const std::string& payload) {
    std::string bytes;
    appendPacket(bytes, {0s, kFrom, kDiscovery, payload});
    return bytes;
}

std::string bytesOf(std::initializer_list<int> values) {
    std::string bytes;
    for (const int value : values)
        bytes += static_cast<char>(value);
    return bytes;
}

TEST(RecordedPacket, HasChecksumsOfEveryKind) {
    const auto sumOf = [](std::string_view words, unsigned long sum) {
        for (std::size_t i = 0; i < words.size(); ++i)
            sum += static_cast<unsigned long>(static_cast<unsigned char>(words[i])) << (i % 2 == 0 ? 8 : 0);
        return sum % 0xFFFF; // 0: it is right
    };
    for (int word = 0; word <= 0xFFFF; ++word) {
        const std::string bytes = packet(bytesOf({word >> 8, word & 0xFF}));
        const std::string_view all(bytes);
        ASSERT_EQ(sumOf(all.substr(0, 20), 0), 0U);
        ASSERT_EQ(sumOf(all.substr(12), 17 + all.size() - 20), 0U) << word << ", with the pseudo header";
        ASSERT_NE(all.substr(26, 2), std::string_view("\0\0", 2)) << word << ": it has none";
    }
}

TEST(RecordedPacket, IsFoundBehindEveryLinkLayer) {
    using enum Decoded::Kind;
    const std::string addresses(12, '\x02');
    const std::string ip = packet("hello");
    const std::string vlan = bytesOf({0x81, 0, 0, 7});
    const std::string ipv4 = bytesOf({8, 0});
    const auto changed = [&](std::size_t at, int value) {
        std::string bytes = ip;
        bytes[at] = static_cast<char>(value);
        return bytes;
    };
    std::string withOption = changed(0, 0x46);
    withOption.insert(20, bytesOf({1, 1, 1, 1}));
    withOption[3] = static_cast<char>(withOption.size());
    const struct {
        Link link;
        std::string frame;
        Decoded::Kind kind;
    } cases[] = {
        {Link::Ethernet, addresses + ipv4 + ip, Datagram},
        {Link::Ethernet, addresses + ipv4 + ip + std::string(13, '\0'), Datagram}, // padded
        {Link::Ethernet, addresses + bytesOf({0x88, 0xA8, 0, 9}) + vlan + ipv4 + ip, Datagram},
        {Link::Cooked, std::string(14, '\x04') + vlan + ipv4 + ip, Datagram},
        {Link::Cooked2, ipv4 + std::string(18, '\x04') + ip, Datagram},
        {Link::Ip, withOption, Datagram},
        {Link::Ip, changed(6, 0x20), Fragment}, // more follow
        {Link::Ip, changed(7, 1), Fragment},    // the rest of one
        {Link::Ip, ip.substr(0, ip.size() - 1), Cut},
        {Link::Ip, ip.substr(0, 19), Cut},
        {Link::Ip, changed(9, 6), Other},                          // TCP
        {Link::Ip, changed(0, 0x65), Other},                       // IPv6
        {Link::Ip, changed(0, 0x44), Other},                       // a header that is too short
        {Link::Ip, changed(25, 200), Other},                       // UDP says more than IP has
        {Link::Ip, changed(25, 7), Other},                         // and less than its header
        {Link::Ethernet, addresses + bytesOf({8, 6}) + ip, Other}, // ARP
        {Link::Ethernet, addresses + vlan, Other},
        {Link::Ip, "", Other},
    };
    for (const auto& [link, frame, kind] : cases) {
        const Decoded decoded = decode(link, frame);
        EXPECT_EQ(decoded.kind, kind) << testing::PrintToString(frame);
        if (kind == Datagram) {
            EXPECT_EQ(decoded.payload, "hello");
            EXPECT_EQ(text(decoded.source), "10.20.1.1:40000");
            EXPECT_EQ(text(decoded.destination), "236.6.7.5:6878");
        }
    }
}

/// An interface's file with as many datagrams, one a second.
std::string fileWith(int datagrams) {
    std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
    for (int i = 0; i < datagrams; ++i)
        appendDatagramBlock(
            bytes, 0,
            {std::chrono::seconds(i), kFrom, kDiscovery, std::string(static_cast<std::size_t>(i), 'x')},
            i == 1 ? "North came" : "");
    return bytes;
}

class RecordingFile : public testing::Test {
protected:
    std::string path(const char* name = "file") const { return m_directory.path() / name; }
    std::string write(const std::string& bytes) const {
        m_directory.write(bytes, "file");
        return path();
    }

private:
    const ProfileDirectory m_directory;
};

TEST_F(RecordingFile, HasTimesInTheUnitsOfItsInterface) {
    std::string bytes = fileWith(2);
    const std::string nanoseconds("\x09\0\x01\0\x09", 5); // the option
    bytes[bytes.find(nanoseconds) + 4] = '\x06';
    Reader reader(write(bytes));
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(reader.next()->time, 1000s);
    EXPECT_EQ(readNotes(path()).comments.at(0).time, 1000s);
    bytes[bytes.find(nanoseconds.substr(0, 4)) + 4] = '\x0A'; // a tenth of that: datagrams are not read
    EXPECT_FALSE(Blocks(write(bytes)).nextDatagram());
}

TEST_F(RecordingFile, HasAsMuchOfACommentAsTheFormatHolds) {
    std::string bytes = fileWith(0);
    appendDatagramBlock(bytes, 0, {1s, kFrom, kDiscovery, "x"}, std::string(70000, 'c'));
    EXPECT_EQ(readNotes(write(bytes)).comments.at(0).text, std::string(65535, 'c'));
}

TEST_F(RecordingFile, GoesOnWhereItsClockWasSetBack) {
    std::string bytes = sectionBlock("a test") + interfaceBlock("eth0");
    for (const int second : {100, 110, 50, 60, 59, 70, 30})
        appendDatagramBlock(bytes, 0, {std::chrono::seconds(second), kFrom, kDiscovery, ""}, "seen");
    const auto times = [](auto next) {
        std::vector<std::int64_t> seconds;
        while (const auto datagram = next())
            seconds.push_back(datagram->time / 1s);
        return seconds;
    };
    const auto expected = ElementsAre(100, 110, 110, 120, 119, 130, 130);
    Reader reader(write(bytes));
    EXPECT_THAT(times([&] { return reader.next(); }), expected);
    Blocks blocks(path());
    EXPECT_THAT(times([&] { return blocks.nextDatagram(); }), expected);
    std::vector<std::int64_t> comments;
    for (const Notes::Comment& comment : readNotes(path()).comments)
        comments.push_back(comment.time / 1s);
    EXPECT_THAT(comments, expected);
}

TEST_F(RecordingFile, ThatIsCutIsReadUpToThereAndSaysWhere) {
    const std::string whole = fileWith(2);
    const std::string bytes = fileWith(3);
    for (std::size_t length = whole.size() + 1; length < bytes.size(); ++length) {
        SCOPED_TRACE(length);
        Reader reader(write(bytes.substr(0, length)));
        EXPECT_TRUE(reader.next());
        EXPECT_TRUE(reader.next());
        const auto readOn = [&] { reader.next(); };
        EXPECT_THAT(readOn,
                    testing::ThrowsMessage<BrokenFile>(HasSubstr("file: broken behind packet 2, at byte " +
                                                                 std::to_string(whole.size()) + ": ")));
        EXPECT_EQ(readNotes(path()).comments.size(), 1U);
        EXPECT_EQ(wholeBlocks(bytes.substr(0, length)), whole.size());
    }
    EXPECT_THROW(Reader(write("no recording")), BrokenFile);
    EXPECT_THROW(Reader(path("nowhere")), std::system_error);
}

TEST_F(RecordingFile, NeverMakesAWriterWait) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0); // which stands still when it is full
    const net::detail::Descriptor reader(::open(path().c_str(), O_RDWR | O_NONBLOCK));
    Writer writer(
        {path(), "a test", 0, 0, 1 << 20}, [] { return Chunk(); }, [] {});
    Chunk each{interfaceBlock("eth0"), std::string(1 << 16, '\0')};
    std::iota(each.blocks.begin(), each.blocks.end(), '\0');
    std::string wanted = sectionBlock("a test") + each.interfaces;
    Chunk chunk = each;
    for (; writer.give(chunk); chunk = each)
        wanted += each.blocks;
    EXPECT_EQ(chunk.blocks, each.blocks) << "is left to its owner";
    EXPECT_GE(wanted.size(), std::size_t{1} << 20);
    interruptThreads(); // which cuts a write short
    std::string written(wanted.size(), '\0');
    for (std::size_t length = 0; length < written.size();)
        length += static_cast<std::size_t>(
            std::max<ssize_t>(::read(reader.get(), &written[length], written.size() - length), 0));
    EXPECT_TRUE(written == wanted);
    writer.finish();
    EXPECT_EQ(writer.bytes(), wanted.size());
    EXPECT_FALSE(writer.failure());
    Writer unread(
        {path(), "a test", 0, 0, 1 << 20}, [] { return Chunk(); }, [] {});
    while (unread.give(chunk))
        chunk = each;
    unread.finish();
    EXPECT_EQ(unread.failure(), std::errc::timed_out);
}

TEST_F(RecordingFile, OfARingIsWholeAndTheOldOnesGo) {
    const std::string content = fileWith(3);
    const std::string interfaces = interfaceBlock("eth0");
    const std::string blocks = content.substr(sectionBlock("a test").size() + interfaces.size());
    std::string closing;
    appendStatisticsBlock(closing, 0, 7s, {12, 5, 4}, "");
    const auto endOfFile = [&] { return Chunk{interfaces, closing}; };
    for (const char* last :
         {"ring-00005.pcapng", "ring-00010.pcapng"}) { // a ring behind that of an earlier run
        Writer writer({path("ring.pcapng"), "a test", content.size(), 2, 1 << 20}, endOfFile, [] {});
        for (int i = 0; i < 5; ++i) {
            Chunk chunk{interfaces, blocks};
            EXPECT_TRUE(writer.give(chunk));
        }
        writer.finish();
        EXPECT_FALSE(writer.failure());
        EXPECT_EQ(writer.path(), path(last));
    }
    for (int number = 1; number <= 10; ++number) {
        const std::string file =
            path(number < 10 ? "ring-0000" : "ring-000") + std::to_string(number) + ".pcapng";
        const bool isKept = number % 5 == 4 || number % 5 == 0; // the last two of each ring
        ASSERT_EQ(std::filesystem::exists(file), isKept) << file;
        if (!isKept)
            continue;
        Reader reader(file);
        while (reader.next())
            continue;
        EXPECT_EQ(reader.counts().packets, 3U);
        EXPECT_EQ(readNotes(file).statistics.at(0).arrived, 12U);
    }
    EXPECT_THROW(Writer(
                     {write(content), "a test"}, [] { return Chunk(); }, [] {}),
                 std::system_error)
        << "nobody's recording is overwritten";
}

/// A radar that announces itself once a second.
Contents recordingOf(const std::vector<std::pair<int, std::string>>& announcements) {
    Contents contents;
    for (const auto& [second, announcement] : announcements)
        contents.add({std::chrono::seconds(second), kFrom, kDiscovery, announcement});
    return contents;
}

class Replayed : public testing::Test {
protected:
    static constexpr auto kObjection = 1000ms;
    static constexpr auto kLead = 2100ms;

    /// Plays up to a second of the recording, and answers what was said about ids.
    std::vector<std::string> playTo(ReplayedRadar& radar, int second) {
        std::vector<std::string> said;
        for (const auto end = m_begin + std::chrono::seconds(second); m_now <= end; m_now += 100ms)
            if (const auto output = radar.advance(m_now - m_begin, kLead, m_now); output.message)
                said.emplace_back(wire::text(*output.message));
        return said;
    }

    static std::string target(const ReplayedRadar& radar, const NetAddress& recorded, Time time = 0s) {
        const auto found = radar.target(recorded, time);
        return found ? text(*found) : "none";
    }

    const ReplayedRadar::TimePoint m_begin{100s}; // of the recording
    ReplayedRadar::TimePoint m_now = m_begin - 3s;
};

TEST_F(Replayed, RadarClaimsItsIdAndAnswersWhileItWasThere) {
    const std::string north = composeAnnouncement("North", 20, 2);
    const Contents contents = recordingOf({{1, north}, {2, north}, {3, north}, {12, north}});
    EXPECT_EQ(contents.radars().front().announcements, 4U);
    EXPECT_EQ(contents.total().longestGap, 9s);
    EXPECT_EQ(recordingOf({{100, north}}).total().longestGap, 0s);
    ReplayedRadar radar(contents.radars().front(), 0, 1, kObjection);
    EXPECT_THAT(playTo(radar, 0), ElementsAre("\x01\xA1\x14\x01", "\x02\xA1\x14\x01"));
    EXPECT_EQ(radar.answer(), "");
    for (const auto& [second, isThere] :
         {std::pair(1, true), {4, true}, {5, false}, {11, false}, {12, true}}) {
        EXPECT_THAT(playTo(radar, second), ElementsAre());
        EXPECT_EQ(radar.answer(), isThere ? north : "") << second;
    }
}

TEST_F(Replayed, RadarHoldsTheIdThatItHadAlsoWhereTheNextOneFollowsSoonerThanItIsClaimed) {
    const std::string north = composeAnnouncement("North", 20, 1);
    const std::string moved = composeAnnouncement("North", 30, 1);
    const Contents contents = recordingOf({{0, north}, {1, moved}, {3, moved}});
    ReplayedRadar radar(contents.radars().front(), 0, 1, kObjection);
    playTo(radar, 0);
    EXPECT_EQ(radar.answer(), north);
    playTo(radar, 3);
    EXPECT_EQ(radar.answer(), moved) << "a little late";
}

TEST_F(Replayed, RadarTakesItsStreamsAlongToAnotherId) {
    const std::string north = composeAnnouncement("North", 1, 2);
    const Contents contents =
        recordingOf({{0, north}, {5, north}, {6, composeAnnouncement("North", 30, 2)}, {8, ""}});
    const auto arpaOf = [](std::uint8_t id) {
        return plan::announcedEndpoint(id, &RadarAddress::arpaState, 1);
    };
    {
        ReplayedRadar radar(contents.radars().front(), 0, 1, kObjection);
        playTo(radar, 1);
        EXPECT_EQ(radar.answer(), north);
        EXPECT_EQ(target(radar, arpaOf(1)), text(arpaOf(1)));
        EXPECT_EQ(target(radar, arpaOf(30)), "none");
        EXPECT_EQ(radar.receive("\x01\xA1\x14\x01").message.has_value(), true)
            << "the holder of id 1 defends it";
        EXPECT_THAT(playTo(radar, 5), ElementsAre("\x01\xA1\x1E\x01", "\x02\xA1\x1E\x01"));
        m_now += 900ms;
        radar.advance(5950ms, kLead, m_now); // the next id is held already
        EXPECT_EQ(target(radar, arpaOf(1)), text(arpaOf(1)));
        EXPECT_EQ(target(radar, arpaOf(30), 6s), text(arpaOf(30))) << "sent before the position is moved";
        EXPECT_EQ(radar.answer(), north);
        playTo(radar, 6);
        EXPECT_EQ(radar.answer(), composeAnnouncement("North", 30, 2)) << "as in the recording";
        EXPECT_EQ(target(radar, arpaOf(30), 6s), text(arpaOf(30))) << "as is announced there";
        EXPECT_EQ(target(radar, arpaOf(1), 5900ms), text(arpaOf(1))) << "sent late";
    }
    m_now = m_begin - 3s;
    ReplayedRadar radar(contents.radars().front(), 40, 1, kObjection);
    EXPECT_THAT(playTo(radar, 1), ElementsAre("\x01\xA1\x28\x01", "\x02\xA1\x28\x01"));
    EXPECT_EQ(radar.answer(), composeAnnouncement("North", 40, 2));
    EXPECT_EQ(target(radar, arpaOf(1)), text(arpaOf(40)));
    EXPECT_EQ(target(radar, plan::getOriginalImageEp(1, 1)), text(plan::getOriginalImageEp(40, 1)));
    EXPECT_EQ(target(radar, plan::getInfoDevBaseEp(1)), text(plan::getInfoDevBaseEp(40)));
    const Contents single = recordingOf({{0, composeAnnouncement("South", 1, 1)}});
    EXPECT_EQ(
        target(ReplayedRadar(single.radars().front(), 40, 1, kObjection), plan::getOriginalImageEp(1, 0)),
        text(plan::getOriginalImageEp(40, 0)));
    radar.receive("\x03\xA1\x28\x01");
    EXPECT_THAT(playTo(radar, 5), testing::SizeIs(2)) << "another id";
    EXPECT_NE(radar.hostId(), 40);
    EXPECT_EQ(radar.answer(), composeAnnouncement("North", radar.hostId(), 2));
}

} // namespace
