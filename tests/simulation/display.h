/// @file
/// A display: searches for the radars' interface, asks through it, and lists what answers.
#pragma once

#include "lan.h"
#include "messages.h"
#include "search_oracle.h"
#include "table_oracle.h"
#include "watch_oracle.h"

#include <UdpSocket/protocol/interface_search.h>
#include <UdpSocket/protocol/radar_table.h>

#include <optional>

namespace simulation {

class Display : public Node {
public:
    struct Habits {
        Time queryPeriod;
        bool tcpService;
    };

    Display(Lan& lan, std::string name, std::vector<Interface> on);

    void start(Habits habits);
    void stop() { m_lan.switchOff(*this); }
    /// Gives an interface another address, or none.
    void setAddress(std::size_t interface, std::uint32_t address);
    /// Puts an address in force without a search. @param address 0: searches again
    void configure(std::uint32_t address) { m_configured = address; }

    bool takes(Traffic traffic) const override {
        return traffic == Traffic::Announcement || traffic == Traffic::Beacon;
    }
    void receive(const Datagram& datagram, std::size_t interface) override;
    void timer(int which) override;

private:
    enum Timer { kQuery, kSearch };
    using Phase = protocol::InterfaceSearch::Phase;
    using Addresses = protocol::InterfaceSearch::Addresses;

    void takeAnnouncement(const Datagram& datagram);
    void search();
    void enterPhase(const Addresses& local);
    Addresses localAddresses() const;
    bool isListening(Traffic traffic, std::uint32_t address) const;
    void queryThrough(std::uint32_t address);
    std::int64_t second() const { return (m_lan.now() + m_clockOffset) / 1000; }

    Lan& m_lan;
    TableOracle m_tableOracle;
    std::optional<WatchOracle> m_watchOracle; // of the first display alone: it takes its time
    SearchOracle m_searchOracle;
    Habits m_habits{};
    std::uint32_t m_configured = 0;
    Time m_clockOffset = 0; // seconds do not tick for all displays at once
    std::optional<protocol::RadarTable> m_table;
    std::optional<protocol::InterfaceSearch> m_search;
    Addresses m_probesHeard;
};

} // namespace simulation
