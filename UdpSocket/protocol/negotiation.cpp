#include <UdpSocket/protocol/negotiation.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace protocol {

namespace {

using State = Negotiation::State;

constexpr std::pair<State, State> kMoves[] = {
    {State::Out, State::Claiming},        {State::Claiming, State::Probing},
    {State::Claiming, State::Out},        {State::Claiming, State::Holding},
    {State::Probing, State::Confirming},  {State::Probing, State::Claiming},
    {State::Confirming, State::Claiming}, {State::Confirming, State::Holding},
    {State::Holding, State::Claiming},
};

} // namespace

/// Every change of the state. @return false, and nothing is changed, for a move that the diagram does not
/// have
bool Negotiation::moveTo(State next) {
    if (std::ranges::find(kMoves, std::pair(m_state, next)) == std::end(kMoves))
        return false;
    m_state = next;
    return true;
}

void Negotiation::claim(std::uint8_t id) {
    m_hostId = id;
    m_due = TimePoint::min();
}

bool Negotiation::login(std::uint8_t id) {
    if (m_state != State::Out || !moveTo(State::Claiming))
        return false;
    claim(id);
    return true;
}

void Negotiation::withdraw() {
    if (!m_givenUp)
        moveTo(State::Out);
}

void Negotiation::keep() {
    if (m_givenUp && moveTo(State::Holding))
        m_hostId = *std::exchange(m_givenUp, std::nullopt);
}

std::optional<Negotiation::TimePoint> Negotiation::due() const {
    if (m_state == State::Out || m_state == State::Holding)
        return std::nullopt;
    return m_due;
}

Negotiation::Output Negotiation::advance(TimePoint now) {
    Output output;
    if (!due() || now < m_due)
        return output;
    const bool opposed = m_state != State::Claiming && !m_unopposed;
    if (opposed && moveTo(State::Claiming))
        claim(m_draw());
    if (m_state == State::Claiming && moveTo(State::Probing)) {
        m_givenUp.reset();
        m_unopposed = true;
        output.message = message(wire::kProbe);
    } else if (m_state == State::Probing && moveTo(State::Confirming)) {
        output.message = message(wire::kConfirm);
    } else if (moveTo(State::Holding)) {
        output.loggedIn = m_hostId;
        return output;
    }
    m_due = now + m_objection;
    return output;
}

Negotiation::Output Negotiation::receive(std::string_view datagram) {
    Output output;
    output.reset = datagram == wire::text(wire::kReset);
    if (datagram.size() != sizeof(wire::Negotiation))
        return output;
    wire::Negotiation received;
    std::memcpy(&received, datagram.data(), sizeof received);
    if (received.code == wire::kProbe || received.code == wire::kConfirm)
        return onClaim(received.one);
    if (received.code == wire::kObjection)
        onObjection(received.hostId);
    return output;
}

/// The fourth byte, always 1, and not the id that is claimed: so only the holder of id 1 objects.
Negotiation::Output Negotiation::onClaim(std::uint8_t fourthByte) {
    Output output;
    if (m_state == State::Holding && fourthByte == m_hostId) {
        m_replied = true;
        output.message = message(wire::kObjection);
    }
    return output;
}

void Negotiation::onObjection(std::uint8_t id) {
    if (id != m_hostId)
        return;
    if (m_state != State::Holding) {
        m_unopposed = false;
        return;
    }
    if (std::exchange(m_replied, false) || !moveTo(State::Claiming))
        return;
    m_givenUp = id;
    claim(m_draw());
}

} // namespace protocol
