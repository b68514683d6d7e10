/// @file
/// A radar host: negotiates an id, and answers queries as the radar of that id.
#pragma once

#include "counts.h"
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

    Host(Lan& lan, std::vector<Host*>& all, std::string name, std::vector<Interface> on, Counts& counts);

    void start(Identity identity);
    void stop();

    bool takes(Traffic traffic) const override {
        return traffic == Traffic::Query || traffic == Traffic::Negotiation;
    }
    void receive(const Datagram& datagram, std::size_t interface) override;
    void timer(int which) override;

    const Identity& identity() const { return m_identity; }
    const NegotiationOracle& oracle() const { return m_oracle; }

private:
    enum Timer { kNegotiate, kBeacon };

    void negotiate();
    void serve(std::uint8_t id);

    Lan& m_lan;
    const std::vector<Host*>& m_all;
    Counts& m_counts;
    NegotiationOracle m_oracle;
    const DatagramId m_beacon;
    Identity m_identity{};
    std::optional<protocol::Negotiation> m_negotiation;
    std::optional<DatagramId> m_answer;
};

} // namespace simulation
