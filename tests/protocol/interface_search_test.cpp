#include <UdpSocket/protocol/interface_search.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using protocol::InterfaceSearch;
using Phase = InterfaceSearch::Phase;
using Addresses = InterfaceSearch::Addresses;
using std::chrono::milliseconds;
constexpr Phase Pause = Phase::Pause, FirstBeacons = Phase::FirstBeacons,
                SecondBeacons = Phase::SecondBeacons, Joining = Phase::Joining, Answers = Phase::Answers;

/// A search with the times that applications meet: beacons 3 s and 3 s, joining 1 s, answers 2 s, pause 5 s.
class InterfaceSearchTest : public testing::Test {
protected:
    struct Step {
        int at;          // milliseconds
        Addresses there; // the machine has
        Addresses heard; // since the step before
        Phase then;
        std::string told; // "beacon"/"answer", the address in force before, what the listeners are told
    };

    static InterfaceSearch::TimePoint moment(int at) { return m_start + milliseconds(at); }

    void follow(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE("at " + std::to_string(step.at));
            for (const std::uint32_t address : step.heard)
                m_search.heard(address);
            const auto result = m_search.advance(moment(step.at), step.there);
            std::string told;
            if (result) {
                told = (result->byBeacon ? "beacon " : "answer ") + std::to_string(result->previous) + ":";
                for (const std::uint32_t address : result->addresses)
                    told += " " + std::to_string(address);
                EXPECT_EQ(m_search.current(), result->addresses.back());
            }
            EXPECT_EQ(told, step.told);
            EXPECT_EQ(m_search.phase(), step.then);
            EXPECT_EQ(m_search.listening().empty(), step.then == Pause);
        }
    }
    /// A search that began at @p at and hears no beacon: its steps up to the one in which it waits for
    /// answers.
    void searchUntilAnswers(int at, const Addresses& there) {
        follow({{at, there, {}, FirstBeacons, ""},
                {at + 3000, there, {}, Joining, ""},
                {at + 4000, there, {}, Answers, ""}});
    }

    static constexpr InterfaceSearch::TimePoint m_start{std::chrono::hours(1)};
    InterfaceSearch m_search{net::detail::SearchTiming{}};
};

// Addresses that come, go or are configured: simulation/search_oracle.h.

TEST_F(InterfaceSearchTest, BeaconsHeardInTwoPeriodsInARowSettleItWithoutAQuery) {
    follow({{0, {1, 2}, {}, FirstBeacons, ""},
            {2999, {1, 2}, {2}, FirstBeacons, ""},
            {3000, {1, 2}, {}, SecondBeacons, ""},
            {5999, {1, 2}, {1, 2}, SecondBeacons, ""}, // 1 was silent in the first period
            {6000, {1, 2}, {}, Pause, "beacon 0: 2"}});
}

TEST_F(InterfaceSearchTest, SilenceInOnePeriodLeadsToAQueryOnEveryAddress) {
    follow({{0, {1, 2}, {}, FirstBeacons, ""},
            {3000, {1, 2}, {2}, SecondBeacons, ""},
            {6000, {1, 2}, {}, Joining, ""}});
    EXPECT_EQ(m_search.listening(), (Addresses{1, 2}));
    follow({{6999, {1, 2}, {}, Joining, ""},
            {7000, {1, 2}, {}, Answers, ""},
            {8999, {1, 2}, {1}, Answers, ""},
            {9000, {1, 2}, {}, Pause, "answer 0: 1"}});
}

TEST_F(InterfaceSearchTest, WhatIsHeardSinceJoiningCountsAsAnAnswer) {
    follow({{0, {1, 2}, {}, FirstBeacons, ""},
            {2999, {1, 2}, {}, FirstBeacons, ""},
            {3000, {1, 2, 3}, {}, Joining, ""}, // 3 came too late
            {4000, {1, 2, 3}, {1, 3}, Answers, ""},
            {6000, {1, 2, 3}, {2}, Pause, "answer 0: 1 2"}});
    EXPECT_EQ(m_search.current(), 2U) << "told in ascending order, and the last one stays in force";
}

TEST_F(InterfaceSearchTest, AddressIsLeftWhereOnlyAnotherOneHearsARadar) {
    searchUntilAnswers(0, {1, 2});
    follow({{6000, {1, 2}, {2}, Pause, "answer 0: 2"},
            {11000, {1, 2}, {}, FirstBeacons, ""},
            {14000, {1, 2}, {1}, SecondBeacons, ""},
            {17000, {1, 2}, {1}, Pause, "beacon 2: 1"}});
}

TEST_F(InterfaceSearchTest, PeriodLastsFromTheOpeningOfItsSockets) {
    follow({{0, {1}, {}, FirstBeacons, ""}});
    m_search.listeningSince(moment(700));
    follow({{3699, {1}, {}, FirstBeacons, ""}, {3700, {1}, {}, Joining, ""}});
    m_search.listeningSince(moment(4000));
    follow({{4999, {1}, {}, Joining, ""}, {5000, {1}, {}, Answers, ""}, {7000, {1}, {}, Pause, ""}});
}

} // namespace
