#include <UdpSocket/protocol/negotiation.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using protocol::Negotiation;
using State = Negotiation::State;

/// Empty: nothing is to be done.
std::string text(const Negotiation::Output& output) {
    return std::string(output.reset ? "reset" : "") + (output.message ? "message" : "") +
           (output.loggedIn ? "in" : "");
}

// How long each wait lasts, whose claims are objected to, what an objection leads to and which id is kept,
// the simulation shows (simulation/negotiation_oracle.h).

/// One host, in each of its states: claiming, probing, confirming, holding, and claiming after an objection.
class NegotiationTest : public testing::TestWithParam<int> {
protected:
    NegotiationTest() {
        m_host.login(20);
        for (int step = 0; step < std::min(GetParam(), 3); ++step)
            m_host.advance(m_now += 1s);
        if (GetParam() == 4)
            m_host.receive("\x03\xA1\x14\x01");
    }
    auto seen() const { return std::tuple(m_host.state(), m_host.hostId(), m_host.due()); }

    Negotiation m_host{[] { return std::uint8_t{51}; }, 1000ms};
    Negotiation::TimePoint m_now{1h};
};

TEST_P(NegotiationTest, ResetChangesNothingElseAndOtherDatagramsNothingAtAll) {
    const auto before = seen();
    EXPECT_EQ(text(m_host.receive("\x20\xA1")), "reset");
    for (int code = 0; code <= 0xFF; ++code)
        for (const std::size_t length : {0U, 1U, 3U, 4U, 5U}) {
            const std::string datagram{static_cast<char>(code), '\xA1', 20, 20, 0};
            if (length != 4 || code == 0 || code > 3) {
                EXPECT_EQ(text(m_host.receive(datagram.substr(0, length))), "");
            }
        }
    for (const char* other : {"\x20\xA2", "\x03\xA2\x14\x01", "\x03\xA1\x15\x01"})
        EXPECT_EQ(text(m_host.receive(other)), "");
    EXPECT_EQ(seen(), before);
}

TEST_P(NegotiationTest, OnlyAClaimIsWithdrawnAndOnlyAnIdGivenUpIsKept) {
    const auto before = seen();
    EXPECT_FALSE(m_host.login(30)) << "one at a time";
    m_host.withdraw();
    EXPECT_EQ(m_host.state(), GetParam() == 0 ? State::Out : std::get<0>(before));
    m_host.keep();
    EXPECT_EQ(m_host.hostId(), 20);
    EXPECT_EQ(m_host.state() == State::Holding, GetParam() >= 3);
}

INSTANTIATE_TEST_SUITE_P(Negotiation, NegotiationTest, testing::Range(0, 5));

TEST(IdDraw, DrawsEveryIdFromSixteenToSixtyThreeAndNoOther) {
    const auto draws = [](std::uint64_t seed, int count) {
        protocol::IdDraw draw(seed);
        std::vector<int> ids;
        for (int i = 0; i < count; ++i)
            ids.push_back(draw());
        return ids;
    };
    const std::vector<int> many = draws(7, 2000);
    const std::set<int> drawn(many.begin(), many.end());
    EXPECT_EQ(drawn.size(), 48U);
    EXPECT_EQ(*drawn.begin(), 16);
    EXPECT_EQ(*drawn.rbegin(), 63);
    EXPECT_EQ(draws(0, 8), draws(1, 8));
    EXPECT_EQ(draws(1'700'000'000'000, 8), draws(1'700'000'000'000 % 2147483647, 8));
    EXPECT_NE(draws(1, 8), draws(2, 8));
}

} // namespace
