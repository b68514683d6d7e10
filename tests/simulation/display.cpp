#include "display.h"

#include <UdpSocket/protocol/announcement.h>

#include <algorithm>

namespace simulation {

using protocol::InterfaceSearch;

Display::Display(Lan& lan, std::string name, std::vector<Interface> on)
    : Node(std::move(name), std::move(on)), m_lan(lan), m_tableOracle(lan), m_searchOracle(lan) {
    lan.add(*this);
}

void Display::start(Habits habits) {
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

void Display::setAddress(std::size_t interface, std::uint32_t address) {
    interfaces[interface].address = address;
    m_searchOracle.moved();
    m_lan.note(*this, address == 0 ? "loses its address on interface" : "has another address on interface",
               static_cast<std::uint32_t>(interface + 1));
}

void Display::timer(int which) {
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

bool Display::isListening(Traffic traffic, std::uint32_t address) const {
    const Phase phase = m_search->phase();
    const bool toBeacons = phase == Phase::FirstBeacons || phase == Phase::SecondBeacons;
    return toBeacons == (traffic == Traffic::Beacon) && m_search->listening().contains(address);
}

void Display::receive(const Datagram& datagram, std::size_t interface) {
    const std::uint32_t address = interfaces[interface].address;
    if (address == 0)
        return;
    const bool sign = protocol::isSignOfRadar(datagram.bytes);
    require(sign == datagram.sign, "a sign of a radar is recognised, and nothing else");
    if (sign) {
        m_searchOracle.heard(address, datagram);
        if (isListening(datagram.traffic, address))
            m_probesHeard.insert(address);
    }
    if (datagram.traffic == Traffic::Announcement && address == m_search->current())
        takeAnnouncement(datagram);
}

void Display::takeAnnouncement(const Datagram& datagram) {
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

void Display::queryThrough(std::uint32_t address) {
    for (std::size_t i = 0; i < interfaces.size(); ++i)
        if (address != 0 && interfaces[i].address == address)
            m_lan.send(*this, i, m_lan.keep(query(*this, address)));
}

Display::Addresses Display::localAddresses() const {
    Addresses addresses;
    for (const Interface& interface : interfaces)
        if (interface.address != 0)
            addresses.insert(interface.address);
    return addresses;
}

void Display::search() {
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
    const Addresses local = localAddresses();
    const InterfaceSearch::TimePoint now{std::chrono::milliseconds(m_lan.now())};
    const Phase before = m_search->phase();
    const auto result = m_search->advance(now, local);
    if (m_search->phase() != before)
        enterPhase(local);
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

void Display::enterPhase(const Addresses& local) {
    if (m_search->phase() == Phase::Answers) {
        m_searchOracle.queries();
        for (const std::uint32_t address : m_search->listening())
            queryThrough(address);
        return;
    }
    m_probesHeard.clear();
    m_searchOracle.listens(m_search->phase() == Phase::Joining ? Traffic::Announcement : Traffic::Beacon,
                           m_search->listening(), local);
    m_search->listeningSince(InterfaceSearch::TimePoint(std::chrono::milliseconds(m_lan.now())));
}

} // namespace simulation
