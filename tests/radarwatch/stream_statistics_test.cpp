#include "../test.h"

#include <RadarWatch/arrival_statistics.h>
#include <RadarWatch/inlet.h>
#include <RadarWatch/membership.h>
#include <RadarWatch/sequence_counter.h>

#include <UdpSocket/base/clock.h>

#include <arpa/inet.h>

namespace radar::detail {
namespace {

TEST(SequenceCounter, TellsLossFromRepetitionAndReordering) {
    struct Case {
        const char* what;
        StreamOptions::Sequence place;
        std::vector<std::uint64_t> numbers;
        std::uint64_t missing, repeated, reordered;
    };
    const StreamOptions::Sequence wide{0, 4, true, 0};
    const StreamOptions::Sequence byte{0, 1, true, 0};
    const StreamOptions::Sequence little{3, 2, false, 0};
    const StreamOptions::Sequence spokes{0, 2, true, 1024};
    const StreamOptions::Sequence widest{1, 8, true, 0};
    const Case cases[] = {
        {"in order", wide, {7, 8, 9}, 0, 0, 0},
        {"lost", wide, {7, 10, 11, 15}, 5, 0, 0},
        {"repeated", wide, {7, 8, 8, 9, 7}, 0, 2, 0},
        {"repeated behind a loss", wide, {7, 10, 10}, 2, 1, 0},
        {"late, and late again", wide, {1, 2, 4, 5, 3, 3, 6}, 0, 1, 1},
        {"begun again", wide, {100000, 100001, 0, 1, 2}, 0, 0, 0},
        {"just inside the window", wide, {100, 200, 137}, 98, 0, 1},
        {"just outside of it", wide, {100, 200, 136, 137}, 99, 0, 0},
        {"a window at once", wide, {100, 164, 163}, 62, 0, 1},
        {"a byte that wraps", byte, {254, 0, 2, 1}, 1, 0, 1},
        {"half of its range at once", byte, {0, 127}, 126, 0, 0},
        {"little endian", little, {0x00FF, 0x0100, 0x0102}, 1, 0, 0},
        {"wraps at a revolution", spokes, {1022, 1023, 0, 1, 3}, 1, 0, 0},
        {"out of its range", spokes, {5, 2000, 6}, 0, 0, 0},
        {"64 bits that wrap", widest, {~std::uint64_t{0}, 1, 2}, 1, 0, 0},
    };
    for (const Case& one : cases) {
        SequenceCounter counter(one.place);
        for (const std::uint64_t number : one.numbers) {
            std::string datagram(one.place.offset, 'x');
            for (std::size_t i = 0; i < one.place.width; ++i)
                datagram +=
                    static_cast<char>(number >> 8 * (one.place.bigEndian ? one.place.width - 1 - i : i));
            counter.count(datagram.data(), datagram.size());
            datagram.pop_back(); // too short to have one
            counter.count(datagram.data(), datagram.size());
        }
        EXPECT_EQ(counter.missing(), one.missing) << one.what;
        EXPECT_EQ(counter.repeated(), one.repeated) << one.what;
        EXPECT_EQ(counter.reordered(), one.reordered) << one.what;
    }
}

TEST(ArrivalStatistics, HasRatesGapsAndPercentiles) {
    ArrivalStatistics counted;
    Statistics result;
    Steady::time_point now(1000s);
    const auto after = [&](Steady::duration passed) -> const Statistics& {
        counted.write(result, now + passed);
        return result;
    };
    EXPECT_FALSE(after(0s).sinceLast);
    for (int i = 0; i < 12 * 1000; ++i) { // twelve seconds, every two hundredth gap ten times as long
        now += i % 200 == 199 ? 10000us : 955us;
        counted.count(now, 100);
    }
    EXPECT_EQ(after(5ms).datagrams, 12000U);
    EXPECT_EQ(result.bytes, 1200000U);
    EXPECT_NEAR(result.lastSecond.datagrams, 1000, 60);
    EXPECT_NEAR(result.lastTenSeconds.datagrams, 1000, 10);
    EXPECT_NEAR(result.lastTenSeconds.bytes, 100000, 1000);
    EXPECT_NEAR(static_cast<double>(result.gap99.count()), 0.955e6, 0.07 * 0.955e6);
    EXPECT_EQ(result.longestGap, 10ms);
    EXPECT_EQ(result.sinceLast, 5ms);
    EXPECT_EQ(counted.takeLongestGap(), 10ms);
    EXPECT_EQ(counted.takeLongestGap(), 0ms);
    EXPECT_EQ(after(5s).lastSecond.datagrams, 0);
    EXPECT_NEAR(result.lastTenSeconds.datagrams, 500, 20);
    now += 3600s;
    counted.count(now, 100);
    EXPECT_EQ(after(100ms).lastSecond.datagrams, 1);
    EXPECT_EQ(result.longestGap, 3600s);
    ArrivalStatistics slow;
    for (const auto time : {0s, 3600s})
        slow.count(now + time, 100);
    slow.write(result, now + 3600s);
    EXPECT_THAT(result.medianGap, AllOf(testing::Gt(1000s), testing::Lt(1100s))) << "the last bucket's";
}

TEST(ArrivalStatistics, HasRatesOfWholeTenthsOfASecondSinceTheFirstDatagram) {
    const Steady::time_point begin(1000s);
    Statistics result;
    ArrivalStatistics young;
    for (int i = 0; i < 150; ++i) {
        young.write(result, begin + i * 1ms);
        EXPECT_EQ(result.lastSecond.datagrams, i < 100 ? 0 : 1000) << i;
        young.count(begin + i * 1ms, 100);
    }
    for (int tenths = 1; tenths < 300; ++tenths) {
        ArrivalStatistics pair;
        pair.count(begin, 100);
        pair.count(begin + tenths * 100ms, 100);
        pair.write(result, begin + (tenths + 1) * 100ms);
        EXPECT_GE(result.medianGap, result.longestGap * 9 / 10) << "of one gap";
        EXPECT_DOUBLE_EQ(result.lastTenSeconds.datagrams, tenths < 100 ? 20.0 / (tenths + 1) : 0.1) << tenths;
    }
}

TEST(ArrivalStatistics, TellsShortGapsFromLongOnesByTheirShare) {
    const struct {
        int shortGaps; // of a hundred
        bool medianIsShort, gap99IsShort;
    } cases[] = {{49, false, false}, {50, true, false}, {98, true, false}, {99, true, true}};
    for (const auto& [shortGaps, medianIsShort, gap99IsShort] : cases) {
        ArrivalStatistics counted;
        Steady::time_point now(1000s);
        counted.count(now, 1);
        for (int i = 0; i < 100; ++i)
            counted.count(now += i < shortGaps ? 1ms : 100ms, 1);
        Statistics result;
        counted.write(result, now);
        EXPECT_EQ(result.medianGap < 10ms, medianIsShort) << shortGaps;
        EXPECT_EQ(result.gap99 < 10ms, gap99IsShort) << shortGaps;
    }
}

TEST(ArrivalStatistics, MeasuresGapsOfAllLengthsToSevenPercent) {
    for (std::chrono::nanoseconds gap = 2us; gap < 1000s; gap += gap / 3) {
        ArrivalStatistics counted;
        Statistics result;
        Steady::time_point now(1h);
        for (int i = 0; i < 100; ++i, now += gap)
            counted.count(now, 1);
        counted.count(now + 2000s, 1);
        counted.write(result, now);
        EXPECT_NEAR(static_cast<double>(result.medianGap / 1ns), static_cast<double>(gap / 1ns),
                    0.07 * static_cast<double>(gap / 1ns));
    }
}

TEST(ArrivalStatistics, SeesNoGapWhereTheWallClockIsSet) {
    using net::detail::steadyArrival;
    const Steady::time_point steady(5000s);
    const std::chrono::nanoseconds wall = 1000000s;
    const auto previous = steady - 2ms;
    EXPECT_EQ(steadyArrival(wall - 1ms, {wall, steady}, previous), steady - 1ms);
    EXPECT_EQ(steadyArrival(wall - 1ms, {wall + 1h, steady}, previous), previous) << "set forward meanwhile";
    EXPECT_LE(steadyArrival(wall - 1ms, {wall - 1h, steady}, previous), steady + 10ms)
        << "set back meanwhile";
    EXPECT_EQ(steadyArrival(wall + 1h - 1ms, {wall + 1h, steady}, previous), steady - 1ms) << "set before";
}

TEST(SystemFiles, TellMembersOfAGroupAndDropsOfAnInterface) {
    const std::string igmp = "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
                             "2\teth0      :     3      V3\n"
                             "\t\t\t\t300706EC     3 0:00000000\t\t1\n"
                             "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
                             "12\teth1      :     2      V2\n"
                             "\t\t\t\t300706EC     1 1:00000010\t\t1\n";
    const std::pair<unsigned, unsigned> members[] = {{2, 3}, {12, 1}, {1, 0}}; // by interface
    for (const auto& [index, count] : members)
        EXPECT_EQ(countMembers(igmp, index, inet_addr("236.6.7.48")), count) << index;

    const std::string interfaces =
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets\n"
        "  eth0: 1234567890 4711    1   17    3     0          0       200      200       2\n"
        "eth0.5:12345678901 4711    1  170    0     0          0       200      200       2\n";
    const std::pair<const char*, unsigned> drops[] = {{"eth0", 20}, {"eth0.5", 170}, {"eth", 0}};
    for (const auto& [device, count] : drops)
        EXPECT_EQ(countInterfaceDrops(interfaces, device), count) << device;
}

} // namespace
} // namespace radar::detail
