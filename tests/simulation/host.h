/// @file
/// A radar host: negotiates an id, and answers queries as the radar of that id.
#pragma once

#include "messages.h"
#include "negotiation_oracle.h"

#include <UdpSocket/protocol/negotiation.h>

#include <optional>

namespace simulation {

class Host : public Node {
public:
    struct Identity {
        std::string radar;
        std::uint8_t wantedId;
        Form form;
        bool beacons; ///< sends a beacon a second
    };

    Host(Lan& lan, std::vector<Host*>& all, std::string name, Interface on)
        : Node(std::move(name), {on}), m_lan(lan), m_all(all), m_oracle(lan, *this) {
        lan.add(*this);
        all.push_back(this);
        m_beacon = &lan.keep(beacon(*this));
    }

    void start(Identity identity) {
        m_lan.switchOn(*this);
        m_identity = std::move(identity);
        m_answer = nullptr;
        m_negotiation.emplace(protocol::IdDraw(m_lan.random().bits()), std::chrono::milliseconds(1000));
        require(m_negotiation->login(m_identity.wantedId) && !m_negotiation->login(20),
                "a login is begun once");
        m_oracle.began(m_identity.wantedId);
        m_lan.schedule(*this, 0, kNegotiate);
        if (m_identity.beacons)
            m_lan.schedule(*this, m_lan.random().below(1000), kBeacon);
    }
    void stop() {
        m_lan.switchOff(*this);
        m_oracle.switchedOff();
    }

    bool takes(Traffic traffic) const override {
        return traffic == Traffic::Query || traffic == Traffic::Negotiation;
    }
    void receive(const Datagram& datagram, std::size_t) override {
        if (datagram.traffic == Traffic::Query) {
            if (m_answer != nullptr)
                m_lan.send(*this, 0, *m_answer);
            return;
        }
        const bool held = m_oracle.isHolder();
        const protocol::Negotiation::Output output = m_negotiation->receive(datagram.bytes);
        m_oracle.took(datagram, output, *m_negotiation);
        if (output.message)
            send(*output.message);
        if (!held || m_oracle.isHolder())
            return;
        ++m_lan.counts[datagram.sender == number() ? "ids given up to an own objection" : "ids given up"];
        m_lan.note(*this, "gives its id up for", m_negotiation->hostId());
        m_lan.schedule(*this, 0, kNegotiate);
    }
    void timer(int which) override {
        if (which == kNegotiate) {
            negotiate();
            return;
        }
        m_lan.send(*this, 0, *m_beacon);
        m_lan.schedule(*this, 1000, kBeacon);
    }

    const NegotiationOracle& oracle() const { return m_oracle; }

private:
    enum Timer { kNegotiate, kBeacon };

    void negotiate() {
        const protocol::Negotiation::TimePoint now{std::chrono::milliseconds(m_lan.now())};
        while (const auto due = m_negotiation->due()) {
            if (*due > now) {
                m_lan.schedule(*this, std::chrono::ceil<std::chrono::milliseconds>(*due - now).count(),
                               kNegotiate);
                return;
            }
            const protocol::Negotiation::Output output = m_negotiation->advance(now);
            require(output.message || output.loggedIn, "what is due is done");
            if (output.message) {
                m_oracle.sent(wire::text(*output.message));
                send(*output.message);
            }
            if (output.loggedIn)
                serve(*output.loggedIn);
        }
    }
    void send(const wire::Negotiation& message) {
        m_lan.send(*this, 0, m_lan.keep(negotiation(*this, wire::text(message))));
    }
    void serve(std::uint8_t id) {
        m_lan.note(*this, "holds id", id);
        m_oracle.loggedIn(id);
        ++m_lan.counts["logins"];
        for (const Host* other : m_all) {
            if (other == this || other->interfaces[0].segment != interfaces[0].segment ||
                !other->m_oracle.holds(id))
                continue;
            ++m_lan.counts["ids held twice"];
            if (id == 1) // nobody objects to a claim of another
                m_oracle.lookAtBoth(other->m_oracle);
        }
        m_answer =
            &m_lan.keep(announcement(*this, interfaces[0].address, m_identity.radar, id, m_identity.form));
    }

    Lan& m_lan;
    const std::vector<Host*>& m_all;
    NegotiationOracle m_oracle;
    Identity m_identity{};
    std::optional<protocol::Negotiation> m_negotiation;
    const Datagram* m_answer = nullptr;
    const Datagram* m_beacon = nullptr;
};

} // namespace simulation
