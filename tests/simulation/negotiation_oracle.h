/// @file
/// What must hold of a host's negotiation, by what it sent and received.
#pragma once

#include "messages.h"

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

    void began(std::uint8_t id) {
        m_stage = Stage::Begun;
        m_id = id;
        m_opposed = false;
        m_last = m_lan.now();
        m_underWay = 0;
        m_unclear = false;
    }

    void sent(std::string_view message) {
        require(bytes::isMessage(message) && message[3] == 1, "hosts send well-formed messages");
        const std::uint8_t id = bytes::id(message);
        if (message[0] == bytes::kProbe) {
            if (m_stage == Stage::Begun) {
                require(id == m_id, "the first probe is for the id asked for, or drawn");
            } else {
                require(m_stage == Stage::Probed || m_stage == Stage::Confirmed,
                        "who holds an id does not probe");
                require(m_opposed, "another id is claimed only where somebody objected");
                require(sinceLast() >= kWait, "a wait lasts a second");
                require(isDrawn(id), "ids are drawn from 16 to 63");
            }
            m_stage = Stage::Probed;
            m_id = id;
            m_opposed = false;
        } else {
            require(message[0] == bytes::kConfirm && m_stage == Stage::Probed && id == m_id,
                    "a confirm follows the probe for the same id");
            require(!m_opposed, "an id that somebody objected to is not confirmed");
            require(sinceLast() >= kWait, "a wait lasts a second");
            m_stage = Stage::Confirmed;
            m_confirmed = m_lan.now();
        }
        m_last = m_lan.now();
    }

    void loggedIn(std::uint8_t id) {
        require(m_stage == Stage::Confirmed && id == m_id, "an id is held after its probe and its confirm");
        require(!m_opposed, "an id that somebody objected to is not held");
        require(sinceLast() >= kWait, "a wait lasts a second");
        m_stage = Stage::Holding;
        m_last = m_lan.now();
    }

    /// After the host took @p datagram.
    void took(const Datagram& datagram, const protocol::Negotiation::Output& output,
              const protocol::Negotiation& negotiation) {
        const std::string& received = datagram.bytes;
        require(output.reset == (received == "\x20\xA1"), "a reset request is told, and nothing else");
        require(!output.loggedIn, "nothing that is received logs in");
        const bool isMessage = bytes::isMessage(received);
        const bool claim = isMessage && received[0] != bytes::kObjection;
        const bool mustObject = claim && isHolder() && static_cast<std::uint8_t>(received[3]) == m_id;
        require(output.message.has_value() == mustObject,
                "the holder of id 1 objects to every claim, nobody else");
        if (mustObject) {
            require(wire::text(*output.message) == bytes::message(bytes::kObjection, m_id),
                    "an objection names the holder's id");
            m_unclear = m_underWay > 0;
            ++m_underWay;
        }
        const bool objection = isMessage && !claim && bytes::id(received) == m_id;
        if (!isHolder()) {
            m_opposed = m_opposed || objection;
            return;
        }
        const bool holding = negotiation.state() == protocol::Negotiation::State::Holding;
        const bool own = datagram.sender == m_host.number();
        if (!objection) {
            require(holding && negotiation.hostId() == m_id,
                    "an id is given up for an objection to it alone");
        } else if (m_underWay == 0) {
            require(!holding, "a holder gives its id up when somebody objects");
        } else if (own && !m_unclear) {
            require(holding, "a holder ignores its own objection, looped back");
        }
        if (objection && own)
            --m_underWay;
        if (objection && !own)
            m_unclear = true;
        if (!holding) {
            require(isDrawn(negotiation.hostId()), "ids are drawn from 16 to 63");
            began(negotiation.hostId());
        } else if (m_underWay == 0) {
            m_unclear = false;
        }
    }

    void switchedOff() { m_stage = Stage::Out; }

    /// At any time.
    void look() const {
        if (m_stage == Stage::Out || m_stage == Stage::Holding)
            return;
        const Time atMost = m_stage == Stage::Begun ? kSlack : kWait + kSlack;
        require(sinceLast() <= atMost, "a negotiation goes on");
    }

    /// That two hosts hold id 1 has a reason: they did not hear each other, or claimed it at once.
    void lookAtBoth(const NegotiationOracle& other) const {
        if (!other.holds(1) || other.m_last > m_confirmed)
            return;
        require(m_lan.lostSince(m_confirmed), "two hosts that hear each other do not both hold id 1");
    }

    bool holds(std::uint8_t id) const { return m_stage == Stage::Holding && m_id == id; }
    bool isHolder() const { return m_stage == Stage::Holding; }

private:
    enum class Stage { Out, Begun, Probed, Confirmed, Holding };

    static constexpr Time kWait = 1000;
    static constexpr Time kSlack = 5;

    static bool isDrawn(std::uint8_t id) { return id >= 16 && id <= 63; }
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
