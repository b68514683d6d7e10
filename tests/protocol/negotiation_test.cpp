#include "../test.h"

#include <UdpSocket/protocol/negotiation.h>

namespace {

using protocol::Negotiation;
using State = Negotiation::State;

// How long each wait lasts, whose claims are objected to, what an objection leads to, which id is kept, and
// what is no message at all, the simulation shows (simulation/negotiation_oracle.h).

TEST(Negotiation, OnlyAClaimIsWithdrawnAndOnlyAnIdGivenUpIsKept) {
    for (const auto& [when, steps, objection] : {std::tuple{"claiming", 0, false},
                                                 {"probing", 1, false},
                                                 {"confirming", 2, false},
                                                 {"holding", 3, false},
                                                 {"claiming after an objection", 3, true}}) {
        SCOPED_TRACE(when);
        Negotiation host([] { return std::uint8_t{51}; }, 1s);
        host.login(20);
        for (int step = 1; step <= steps; ++step)
            host.advance(Negotiation::TimePoint(step * 1s));
        if (objection)
            host.receive("\x03\xA1\x14\x01");
        const State before = host.state();
        EXPECT_FALSE(host.login(30)) << "one at a time";
        host.withdraw();
        EXPECT_EQ(host.state(), steps == 0 ? State::Out : before);
        host.keep();
        EXPECT_EQ(host.hostId(), 20);
        EXPECT_EQ(host.state() == State::Holding, steps == 3);
    }
}

TEST(IdDraw, DrawsEveryIdFromSixteenToSixtyThreeAndNoOther) {
    const auto draws = [](std::uint64_t seed) {
        std::vector<int> ids(2000);
        std::ranges::generate(ids, protocol::IdDraw(seed));
        return ids;
    };
    const std::vector<int> many = draws(7);
    const std::set<int> drawn(many.begin(), many.end());
    EXPECT_EQ(drawn.size(), 48U);
    EXPECT_EQ(*drawn.begin(), 16);
    EXPECT_EQ(*drawn.rbegin(), 63);
    EXPECT_EQ(draws(1'700'000'000'000), draws(1'700'000'000'000 % 2147483647));
    EXPECT_NE(draws(1), draws(2));
}

} // namespace
