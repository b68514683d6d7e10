#include <UdpSocket/protocol/negotiation.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using protocol::Negotiation;
using State = Negotiation::State;

std::string message(const wire::Code& code, int id, int fourth = 1) {
    return {code[0], code[1], static_cast<char>(id), static_cast<char>(fourth)};
}

/// "probe 20", "in 20"; empty: nothing is to be done.
std::string text(const Negotiation::Output& output) {
    std::string result = output.reset ? "reset" : "";
    if (output.message) {
        EXPECT_EQ(output.message->one, 1);
        for (const auto& [code, word] : {std::pair{wire::kProbe, "probe "},
                                         {wire::kConfirm, "confirm "},
                                         {wire::kObjection, "objection "}})
            if (output.message->code == code)
                result += word + std::to_string(output.message->hostId);
    }
    if (output.loggedIn)
        result += "in " + std::to_string(*output.loggedIn);
    return result;
}

/// One host, whose draws are 51, 52, 53 and so on.
class NegotiationTest : public testing::Test {
protected:
    /// A host that claims @p id and has come as far as @p state unopposed; Claiming with an id given up:
    /// GivenUp.
    enum Place { Out, Claiming, Probing, Confirming, Holding, GivenUp };
    static constexpr Place kPlaces[] = {Out, Claiming, Probing, Confirming, Holding, GivenUp};

    Negotiation host(Place place, std::uint8_t id = 20) {
        Negotiation made([this] { return m_draw++; }, 1000ms);
        if (place >= Claiming)
            made.login(id);
        for (int state = Claiming; state < std::min(place, Holding); ++state, m_now += 1s)
            made.advance(m_now);
        if (place == GivenUp)
            made.receive(message(wire::kObjection, id));
        return made;
    }
    /// What is done at the end of a wait.
    std::string wait(Negotiation& host) { return text(host.advance(m_now += 1s)); }
    std::string objectionThenWait(Negotiation& host, int id) {
        const auto before = std::tuple(host.state(), host.hostId(), host.due());
        EXPECT_EQ(text(host.receive(message(wire::kObjection, id))), "");
        if (std::get<0>(before) != State::Holding) {
            EXPECT_EQ(std::tuple(host.state(), host.hostId(), host.due()), before)
                << "the wait is waited out";
        }
        return wait(host);
    }

    Negotiation::TimePoint m_now{1h};
    std::uint8_t m_draw = 51;
};

TEST_F(NegotiationTest, UnopposedClaimIsProbedConfirmedAndHeldAfterTwoWholeWaits) {
    Negotiation host = this->host(Out);
    EXPECT_EQ(host.hostId(), 0);
    EXPECT_FALSE(host.due());
    ASSERT_TRUE(host.login(5)) << "any id, used as given";
    EXPECT_LE(host.due(), m_now);
    EXPECT_EQ(text(host.advance(m_now)), "probe 5");
    EXPECT_EQ(host.due(), m_now + 1s);
    EXPECT_EQ(text(host.advance(m_now + 999ms)), "");
    EXPECT_EQ(text(host.advance(m_now + 1001ms)), "confirm 5");
    EXPECT_EQ(host.due(), m_now + 2001ms) << "from the moment that the confirm was sent";
    EXPECT_EQ(text(host.advance(m_now + 2000ms)), "");
    EXPECT_EQ(host.state(), State::Confirming);
    EXPECT_EQ(text(host.advance(m_now + 2001ms)), "in 5");
    EXPECT_FALSE(host.due());
    EXPECT_EQ(m_draw, 51) << "no id was drawn";
}

// Whose claims are objected to, and which id is kept, the simulation shows (simulation/negotiation_oracle.h).

TEST_F(NegotiationTest, EveryMoveOfTheDiagramIsMadeAndNoOther) {
    const struct {
        const char* event;
        std::function<std::string(Negotiation&)> happens;
        std::string then[std::size(kPlaces)]; // by place: the state, and what is done
    } kTable[] = {
        {"login",
         [](Negotiation& host) { return host.login(30) ? "accepted" : ""; },
         {"Claiming accepted", "Claiming ", "Probing ", "Confirming ", "Holding ", "Claiming "}},
        {"withdraw",
         [](Negotiation& host) { return host.withdraw(), ""; },
         {"Out ", "Out ", "Probing ", "Confirming ", "Holding ", "Claiming "}},
        {"keep",
         [](Negotiation& host) { return host.keep(), ""; },
         {"Out ", "Claiming ", "Probing ", "Confirming ", "Holding ", "Holding "}},
        {"silence",
         [this](Negotiation& host) { return wait(host); },
         {"Out ", "Probing probe 20", "Confirming confirm 20", "Holding in 20", "Holding ",
          "Probing probe 51"}},
        {"objection",
         [this](Negotiation& host) { return objectionThenWait(host, 20); },
         {"Out ", "Probing probe 20", "Probing probe 51", "Probing probe 51", "Probing probe 51",
          "Probing probe 51"}},
        {"objection to another",
         [this](Negotiation& host) { return objectionThenWait(host, 21); },
         {"Out ", "Probing probe 20", "Confirming confirm 20", "Holding in 20", "Holding ",
          "Probing probe 51"}},
    };
    const char* const states[] = {"Out ", "Claiming ", "Probing ", "Confirming ", "Holding "};
    for (const auto& [event, happens, then] : kTable)
        for (const Place place : kPlaces) {
            SCOPED_TRACE(event + (" at " + std::to_string(place)));
            m_draw = 51;
            Negotiation host = this->host(place);
            const std::string done = happens(host);
            EXPECT_EQ(states[static_cast<int>(host.state())] + done, then[place]);
            EXPECT_EQ(host.due().has_value(), host.state() != State::Out && host.state() != State::Holding);
        }
}

TEST_F(NegotiationTest, ResetChangesNothingElseAndOtherDatagramsNothingAtAll) {
    for (const Place place : kPlaces) {
        Negotiation host = this->host(place);
        const auto before = std::tuple(host.state(), host.hostId(), host.due());
        for (int code = 0; code <= 0xFF; ++code)
            for (const std::size_t length : {0U, 1U, 2U, 3U, 4U, 5U}) {
                const std::string datagram =
                    std::string{static_cast<char>(code), '\xA1', 20, 20, 0}.substr(0, length);
                if (length != 4 || code == 0 || code > 3) {
                    EXPECT_EQ(text(host.receive(datagram)), length == 2 && code == 0x20 ? "reset" : "");
                }
            }
        for (const char* other : {"\x20\xA2", "\x03\xA2\x14\x01", "\x03\xA1\x15\x01"})
            EXPECT_EQ(text(host.receive(other)), "");
        EXPECT_EQ(std::tuple(host.state(), host.hostId(), host.due()), before);
    }
}

TEST(IdDraw, DrawsEveryIdFromSixteenToSixtyThreeAndNoOther) {
    protocol::IdDraw draw(7);
    std::set<int> drawn;
    for (int i = 0; i < 2000; ++i)
        drawn.insert(draw());
    EXPECT_EQ(drawn.size(), 48U);
    EXPECT_EQ(*drawn.begin(), 16);
    EXPECT_EQ(*drawn.rbegin(), 63);

    const auto draws = [](std::uint64_t seed) {
        protocol::IdDraw one(seed);
        std::vector<int> ids;
        for (int i = 0; i < 8; ++i)
            ids.push_back(one());
        return ids;
    };
    EXPECT_EQ(draws(0), draws(1));
    EXPECT_EQ(draws(1'700'000'000'000), draws(1'700'000'000'000 % 2147483647));
    EXPECT_NE(draws(1), draws(2));
}

} // namespace
