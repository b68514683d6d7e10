#include <UdpSocket/protocol/interface_search.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using protocol::InterfaceSearch;
using Phase = InterfaceSearch::Phase;
using Addresses = InterfaceSearch::Addresses;

/// A search with the times that applications meet.
class InterfaceSearchTest : public testing::Test {
protected:
    static InterfaceSearch::TimePoint moment(int milliseconds) {
        return InterfaceSearch::TimePoint(std::chrono::hours(1)) + std::chrono::milliseconds(milliseconds);
    }
    /// What the listeners are told at a moment, behind the address in force before; empty: nothing.
    std::string advance(int milliseconds, const Addresses& there) {
        const auto result = m_search.advance(moment(milliseconds), there);
        if (!result)
            return "";
        std::string told =
            (result->byBeacon ? "beacon " : "answer ") + std::to_string(result->previous) + ":";
        for (const std::uint32_t address : result->addresses)
            told += " " + std::to_string(address);
        return told;
    }

    InterfaceSearch m_search{net::detail::SearchTiming{}};
};

// What the addresses hear, and which of them come, go or are configured: simulation/search_oracle.h.

TEST_F(InterfaceSearchTest, EachPhaseLastsItsTimeFromTheOpeningOfItsSockets) {
    const Addresses both{1, 2};
    const Addresses andALateOne{1, 2, 3};
    EXPECT_EQ(advance(0, both), "");
    m_search.listeningSince(moment(700));
    m_search.heard(2);
    const auto lastsUntil = [&](int end, Phase phase) {
        EXPECT_EQ(advance(end - 1, andALateOne), "");
        EXPECT_EQ(m_search.phase(), phase);
        EXPECT_EQ(m_search.listening(), phase == Phase::SecondBeacons ? Addresses{2} : both);
        return advance(end, andALateOne);
    };
    EXPECT_EQ(lastsUntil(3700, Phase::FirstBeacons), "");
    EXPECT_EQ(lastsUntil(6700, Phase::SecondBeacons), "");
    m_search.listeningSince(moment(7000));
    m_search.heard(2);
    EXPECT_EQ(lastsUntil(8000, Phase::Joining), "");
    m_search.heard(1);
    m_search.heard(3);
    EXPECT_EQ(lastsUntil(10000, Phase::Answers), "answer 0: 1 2") << "what came since joining counts, too";
    EXPECT_EQ(m_search.current(), 2U) << "told in ascending order, and the last one stays in force";
    EXPECT_TRUE(m_search.listening().empty());

    EXPECT_EQ(advance(14999, both), "");
    EXPECT_EQ(m_search.phase(), Phase::Pause);
    for (const int end : {15000, 18000}) {
        EXPECT_EQ(advance(end, both), "");
        m_search.heard(1);
    }
    EXPECT_EQ(advance(21000, both), "beacon 2: 1") << "left where only another one hears a radar";
}

} // namespace
