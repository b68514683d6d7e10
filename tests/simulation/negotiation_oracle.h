/// @file
/// What must hold of a host's negotiation, by what it sent and received.
#pragma once

#include "lan.h"

#include <UdpSocket/protocol/negotiation.h>

namespace simulation {

/// Properties: an id is held after a probe and a confirm, each followed by a second in which no objection to
/// it came. Another id is claimed where an objection came, and only there; each step comes in time, so a
/// negotiation ends. A holder of id 1 objects to every claim; no other holder does. A holder gives its id up
/// when somebody objects, and not for its own objection, looped back: unless two claims came before that,
/// since a holder remembers that it objected, not how often.
class NegotiationOracle {
public:
    NegotiationOracle(const Lan& lan, const Node& host) : m_lan(lan), m_host(host) {}

    void began(std::uint8_t id);
    void sent(std::string_view message);
    void loggedIn(std::uint8_t id);
    /// After the host took @p datagram.
    void took(const Datagram& datagram, const protocol::Negotiation::Output& output,
              const protocol::Negotiation& negotiation);
    void switchedOff() { m_stage = Stage::Out; }
    /// At any time.
    void look() const;
    /// That two hosts hold id 1 has a reason: they did not hear each other, or claimed it at once.
    void lookAtBoth(const NegotiationOracle& other) const;

    bool holds(std::uint8_t id) const { return m_stage == Stage::Holding && m_id == id; }
    bool isHolder() const { return m_stage == Stage::Holding; }

private:
    enum class Stage { Out, Begun, Probed, Confirmed, Holding };

    Time sinceLast() const { return m_lan.now() - m_last; }

    const Lan& m_lan;
    const Node& m_host;
    Stage m_stage = Stage::Out;
    std::uint8_t m_id = 0; // claimed or held
    bool m_opposed = false;
    Time m_last = 0; // when the stage began
    Time m_confirmed = 0;
    int m_underWay = 0;     // own objections that have not come back yet
    bool m_unclear = false; // among those are others' objections, or they are several
};

} // namespace simulation
