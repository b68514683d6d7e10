/// @file
/// Whoever can send on the LAN can forge: announcements, objections, claims, beacons, resets.
#pragma once

#include "lan.h"
#include "messages.h"

namespace simulation {

class Attacker : public Node {
public:
    Attacker(Lan& lan, std::vector<Interface> on, const std::vector<std::string>& radars);

    /// @param rate about one act in so many seconds
    void start(std::uint32_t rate);
    /// Fills the displays' tables: 4096 names and some, from @p sources addresses, within some seconds.
    void flood(std::uint32_t sources);

    bool takes(Traffic) const override { return false; }
    void receive(const Datagram&, std::size_t) override {}
    void timer(int which) override;

private:
    enum Timer { kAct, kFlood };

    void act();
    void send(Datagram datagram);
    void sendAnnouncement(const std::string& name);
    void sendNegotiation(std::string_view bytes) { send(negotiation(*this, bytes)); }
    std::uint32_t below(std::size_t end) { return m_lan.random().below(static_cast<std::uint32_t>(end)); }

    Lan& m_lan;
    const std::vector<std::string>& m_radars; // names in use
    std::uint32_t m_rate = 1;
    std::uint32_t m_forged = 0; // counts names
    std::uint32_t m_floodLeft = 0;
    std::uint32_t m_floodSources = 1;
    std::size_t m_floodInterface = 0;
};

} // namespace simulation
