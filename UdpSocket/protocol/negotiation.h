/// @file
/// The negotiation of host ids, as one host takes part in it.
#pragma once

#include <UdpSocket/protocol/wire.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string_view>

namespace protocol {

/// Draws host ids from 16 to 63, each alike.
class IdDraw {
public:
    /// @param seed of the minimal-standard generator, which takes it modulo 2147483647, and 1 for 0
    explicit IdDraw(std::uint64_t seed)
        : m_engine(static_cast<std::minstd_rand0::result_type>(seed % std::minstd_rand0::modulus)) {}
    std::uint8_t operator()() { return static_cast<std::uint8_t>(m_range(m_engine)); }

private:
    std::minstd_rand0 m_engine;
    std::uniform_int_distribution<std::uint16_t> m_range{16, 63};
};

/// One host's claim of an id, and its defence.
///
///              login()               due                  silence               silence
///     Out ------------> Claiming ------------> Probing ------------> Confirming ------------> Holding
///      ^                 | ^  ^                   |                      |                    | ^
///      |   withdraw()    | |  |                   |                      |                    | |
///      +-----------------+ |  +-------------------+----------------------+                    | |
///                          |          objection: next id at the end of the wait              | |
///                          |                                                                 | |
///                          +-----------------------------------------------------------------+ |
///                          |                      objection: next id                            |
///                          +--------------------------------------------------------------------+
///                                                  keep()
///
/// Only the holder of id 1 defends it: the byte that a claim is compared by is 1 in every message.
class Negotiation {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class State { Out, Claiming, Probing, Confirming, Holding };

    /// What has to be done, in this order.
    struct Output {
        bool reset = false;                       ///< the reset request has come
        std::optional<wire::Negotiation> message; ///< to be sent to the group
        std::optional<std::uint8_t> loggedIn;     ///< this id is held from now on
    };

    /// @param draw      draws the id that follows on an objection
    /// @param objection how long others may object to a probe, and again to a confirm
    Negotiation(std::function<std::uint8_t()> draw, std::chrono::milliseconds objection)
        : m_draw(std::move(draw)), m_objection(objection) {}

    State state() const { return m_state; }
    /// The id that is claimed or held; 0 before the first login.
    std::uint8_t hostId() const { return m_hostId; }

    /// Begins to claim @p id, any value. @return false when a login was begun before
    bool login(std::uint8_t id);
    /// Takes a login back that has sent nothing yet.
    void withdraw();
    /// Takes back that the id was given up, as long as nothing was sent for another: nobody can negotiate it.
    void keep();

    /// When advance() has something to do; nothing while nothing is under way.
    std::optional<TimePoint> due() const;
    /// Goes on where a wait is over at @p now.
    Output advance(TimePoint now);

    /// A datagram on the negotiation group.
    Output receive(std::string_view datagram);

private:
    bool moveTo(State next);
    void claim(std::uint8_t id);
    wire::Negotiation message(const wire::Code& code) const { return {code, m_hostId}; }
    Output onClaim(std::uint8_t fourthByte);
    void onObjection(std::uint8_t id);

    std::function<std::uint8_t()> m_draw;
    std::chrono::milliseconds m_objection;
    State m_state = State::Out;
    TimePoint m_due{};
    std::uint8_t m_hostId = 0;
    std::optional<std::uint8_t> m_givenUp; // the id held before, as long as nothing was sent for another
    bool m_unopposed = false;
    bool m_replied = false; // the next objection to our id is our own, looped back
};

} // namespace protocol
