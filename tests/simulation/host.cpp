#include "host.h"

namespace simulation {

using protocol::Negotiation;

Host::Host(Lan& lan, std::vector<Host*>& all, std::string name, Interface on)
    : Node(std::move(name), {on}), m_lan(lan), m_all(all), m_oracle(lan, *this) {
    lan.add(*this);
    all.push_back(this);
    m_beacon = &lan.keep(beacon(*this));
}

void Host::start(Identity identity) {
    m_lan.switchOn(*this);
    m_identity = std::move(identity);
    m_answer = nullptr;
    m_negotiation.emplace(protocol::IdDraw(m_lan.random().bits()), std::chrono::milliseconds(1000));
    require(m_negotiation->login(m_identity.wantedId) && !m_negotiation->login(20), "a login is begun once");
    m_oracle.began(m_identity.wantedId);
    m_lan.schedule(*this, 0, kNegotiate);
    if (m_identity.beacons)
        m_lan.schedule(*this, m_lan.random().below(1000), kBeacon);
}

void Host::stop() {
    m_lan.switchOff(*this);
    m_oracle.switchedOff();
}

void Host::timer(int which) {
    if (which == kNegotiate) {
        negotiate();
        return;
    }
    m_lan.send(*this, 0, *m_beacon);
    m_lan.schedule(*this, 1000, kBeacon);
}

void Host::receive(const Datagram& datagram, std::size_t) {
    if (datagram.traffic == Traffic::Query) {
        if (m_answer != nullptr)
            m_lan.send(*this, 0, *m_answer);
        return;
    }
    const bool held = m_oracle.isHolder();
    const Negotiation::Output output = m_negotiation->receive(datagram.bytes);
    m_oracle.took(datagram, output, *m_negotiation);
    if (output.message)
        send(*output.message);
    if (!held || m_oracle.isHolder())
        return;
    ++m_lan.counts[datagram.sender == number() ? "ids given up to an own objection" : "ids given up"];
    m_lan.note(*this, "gives its id up for", m_negotiation->hostId());
    m_lan.schedule(*this, 0, kNegotiate);
}

void Host::negotiate() {
    const Negotiation::TimePoint now{std::chrono::milliseconds(m_lan.now())};
    while (const auto due = m_negotiation->due()) {
        if (*due > now) {
            m_lan.schedule(*this, std::chrono::ceil<std::chrono::milliseconds>(*due - now).count(),
                           kNegotiate);
            return;
        }
        const Negotiation::Output output = m_negotiation->advance(now);
        require(output.message || output.loggedIn, "what is due is done");
        if (output.message) {
            m_oracle.sent(wire::text(*output.message));
            send(*output.message);
        }
        if (output.loggedIn)
            serve(*output.loggedIn);
    }
}

void Host::send(const wire::Negotiation& message) {
    m_lan.send(*this, 0, m_lan.keep(negotiation(*this, wire::text(message))));
}

void Host::serve(std::uint8_t id) {
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
    m_answer = &m_lan.keep(announcement(*this, interfaces[0].address, m_identity.radar, id, m_identity.form));
}

} // namespace simulation
