/// @file
/// A radar host: negotiates an id, and answers queries as the radar of that id.
#pragma once

#include "lan.h"
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

    Host(Lan& lan, std::vector<Host*>& all, std::string name, Interface on);

    void start(Identity identity);
    void stop();

    bool takes(Traffic traffic) const override {
        return traffic == Traffic::Query || traffic == Traffic::Negotiation;
    }
    void receive(const Datagram& datagram, std::size_t interface) override;
    void timer(int which) override;

    const NegotiationOracle& oracle() const { return m_oracle; }

private:
    enum Timer { kNegotiate, kBeacon };

    void negotiate();
    void serve(std::uint8_t id);
    void send(const wire::Negotiation& message);

    Lan& m_lan;
    const std::vector<Host*>& m_all;
    NegotiationOracle m_oracle;
    Identity m_identity{};
    std::optional<protocol::Negotiation> m_negotiation;
    const Datagram* m_answer = nullptr;
    const Datagram* m_beacon = nullptr;
};

} // namespace simulation
