/// @file
/// A display: searches for the radars' interface, asks through it, and lists what answers.
#pragma once

#include "messages.h"
#include "search_oracle.h"
#include "table_oracle.h"
#include "watch_oracle.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/interface_search.h>
#include <UdpSocket/protocol/radar_table.h>

#include <algorithm>
#include <optional>

namespace simulation {

class Display : public Node {
public:
    struct Habits {
        Time queryPeriod;
        bool tcpService;
    };

    Display(Lan& lan, std::string name, std::vector<Interface> on)
        : Node(std::move(name), std::move(on)), m_lan(lan), m_tableOracle(lan), m_searchOracle(lan) {
        lan.add(*this);
    }

    void start(Habits habits) {
        m_lan.switchOn(*this);
        m_habits = habits;
        m_configured = 0;
        m_clockOffset = m_lan.random().below(1000);
        m_table.emplace();
        m_search.emplace(net::detail::SearchTiming{});
        m_probesHeard.clear();
        m_tableOracle.forgetAll();
        if (Node::name() == "display1")
            m_watchOracle.emplace();
        m_searchOracle.switchedOn();
        m_lan.schedule(*this, 0, kSearch);
        m_lan.schedule(*this, m_lan.random().below(1000), kQuery);
    }
    void stop() { m_lan.switchOff(*this); }
    /// Gives an interface another address, or none.
    void setAddress(std::size_t interface, std::uint32_t address) {
        interfaces[interface].address = address;
        m_searchOracle.moved();
        m_lan.note(*this,
                   address == 0 ? "loses its address on interface" : "has another address on interface",
                   static_cast<std::uint32_t>(interface + 1));
    }
    /// Puts an address in force without a search. @param address 0: searches again
    void configure(std::uint32_t address) { m_configured = address; }

    bool takes(Traffic traffic) const override {
        return traffic == Traffic::Announcement || traffic == Traffic::Beacon;
    }
    void receive(const Datagram& datagram, std::size_t interface) override {
        const std::uint32_t address = interfaces[interface].address;
        if (address == 0)
            return;
        const bool sign = protocol::isSignOfRadar(datagram.bytes);
        require(sign == datagram.sign, "a sign of a radar is recognised, and nothing else");
        if (sign) {
            m_searchOracle.heard(address, datagram);
            if (isListening(datagram.traffic))
                m_probesHeard.insert(address);
        }
        if (datagram.traffic == Traffic::Announcement && address == m_search->current())
            takeAnnouncement(datagram);
    }
    void timer(int which) override {
        if (which == kSearch) {
            search();
            return;
        }
        m_tableOracle.queried(second(), m_table->expire(second()), *m_table);
        if (m_watchOracle)
            m_watchOracle->queried(second(), *m_table);
        queryThrough(m_search->current());
        m_searchOracle.look(localAddresses());
        m_lan.schedule(*this, m_habits.queryPeriod, kQuery);
    }

private:
    enum Timer { kQuery, kSearch };
    static constexpr std::uint32_t kOpening = 700; // ms, in which sockets are open

    using Phase = protocol::InterfaceSearch::Phase;
    using Addresses = protocol::InterfaceSearch::Addresses;
    using Moment = protocol::InterfaceSearch::TimePoint;

    std::int64_t second() const { return (m_lan.now() + m_clockOffset) / 1000; }
    Addresses localAddresses() const {
        Addresses addresses;
        for (const Interface& interface : interfaces)
            if (interface.address != 0)
                addresses.insert(interface.address);
        return addresses;
    }
    bool isListening(Traffic traffic) const {
        const Phase phase = m_search->phase();
        const bool toBeacons = phase == Phase::FirstBeacons || phase == Phase::SecondBeacons;
        return toBeacons == (traffic == Traffic::Beacon);
    }

    void takeAnnouncement(const Datagram& datagram) {
        const auto announcement = protocol::readAnnouncement(datagram.bytes, {false, m_habits.tcpService});
        require(announcement.has_value() == !datagram.name.empty(), "an announcement is recognised as one");
        if (!announcement)
            return;
        const std::string meant[] = {datagram.name, m_habits.tcpService ? datagram.tcpName : ""};
        require(announcement->listingCount == (meant[1].empty() ? 1 : 2), "each service has a name");
        for (std::size_t i = 0; i < announcement->listingCount; ++i) {
            const auto& [name, record] = announcement->listings[i];
            require(name.view() == meant[i], "names are listed as announced");
            const auto update = m_table->update(name, record, datagram.source, second());
            m_tableOracle.took(meant[i], datagram, second(), update, *m_table);
        }
        if (m_watchOracle)
            m_watchOracle->took(*announcement, datagram.source, second(), *m_table);
    }

    void queryThrough(std::uint32_t address) {
        for (std::size_t i = 0; i < interfaces.size(); ++i)
            if (address != 0 && interfaces[i].address == address)
                m_lan.send(*this, i, m_lan.keep(query(*this, address)));
    }

    void search() {
        if (m_configured != 0) {
            m_search->configure(m_configured);
            m_probesHeard.clear();
            m_searchOracle.configured(m_configured);
            m_lan.note(*this, "goes by its configured address");
            m_lan.schedule(*this, 1000, kSearch);
            return;
        }
        for (const std::uint32_t address : m_probesHeard)
            m_search->heard(address);
        m_probesHeard.clear();
        const Addresses local = localAddresses();
        const Moment now{std::chrono::milliseconds(m_lan.now())};
        const Phase before = m_search->phase();
        const auto result = m_search->advance(now, local);
        if (m_search->phase() != before)
            enterPhase(now, local);
        if (m_search->phase() == Phase::Pause && before != Phase::Pause)
            m_searchOracle.ended(result ? &*result : nullptr);
        else if (local.empty())
            m_searchOracle.foundNoAddress();
        else
            require(!result, "only a search tells an address");
        if (result)
            m_lan.note(*this, result->byBeacon ? "hears beacons on address" : "hears answers on address",
                       m_search->current() >> 24);
        require(m_search->current() == m_searchOracle.current(), "the address told last is in force");
        Time next = std::chrono::ceil<std::chrono::milliseconds>(m_search->phaseEnd() - now).count();
        if (m_search->phase() == Phase::Pause)
            next = std::min<Time>(next, 1000);
        m_lan.schedule(*this, std::max<Time>(next, 0), kSearch);
    }

    void enterPhase(Moment now, const Addresses& local) {
        if (m_search->phase() == Phase::Answers) {
            m_searchOracle.queries();
            for (const std::uint32_t address : m_search->listening())
                queryThrough(address);
            return;
        }
        const Time opening = m_search->phase() == Phase::Pause ? 0 : m_lan.random().below(kOpening);
        m_searchOracle.listens(m_search->phase() == Phase::Joining ? Traffic::Announcement : Traffic::Beacon,
                               m_search->listening(), local, opening);
        m_search->listeningSince(now + std::chrono::milliseconds(opening));
    }

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
