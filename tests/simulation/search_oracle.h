/// @file
/// What must hold of a display's search for the radars' interface, by what it listened to and what came.
#pragma once

#include "lan.h"

#include <UdpSocket/protocol/interface_search.h>

#include <algorithm>
#include <iterator>
#include <set>

namespace simulation {

/// Properties: a search listens to beacons for 3 seconds on every local address, for 3 more on those that
/// heard some, and where none heard some twice asks on every address: a second after joining, two before the
/// end. Each of those times begins when the sockets are open. What heard a radar, and is still there, is told
/// in ascending order, unless the last search found one and the address in force is among them. The next
/// search begins after 5 seconds, or as soon as the local addresses are others than those searched.
class SearchOracle {
public:
    using Addresses = std::set<std::uint32_t>;

    explicit SearchOracle(Lan& lan) : m_lan(lan) {}

    void switchedOn() {
        m_periods.clear();
        m_searched.clear();
        m_searchEnd = m_lan.now() - kPause;
        m_current = 0;
        m_found = false;
    }

    /// The display listens to something else from now on. @param to empty: to nothing
    /// @param opening how long its sockets take to open
    void listens(Traffic traffic, const Addresses& to, const Addresses& local, Time opening) {
        const Time now = m_lan.now();
        if (isSearching()) {
            Period& period = m_periods.back();
            period.to = now;
            period.localAtEnd = local;
            require(now - period.from >= kListening, "a listening period lasts 3 seconds");
            requireEnd(period);
        } else if (!to.empty()) {
            require(now - m_searchEnd >= kPause || local != m_searched, "searches pause for 5 seconds");
            m_periods.clear();
            m_searched = local;
        }
        if (!to.empty())
            m_periods.push_back({traffic, to, now + opening, 0, {}, {}});
    }

    void queries() { m_queried = m_lan.now(); }

    /// @p sign reached a local address.
    void heard(std::uint32_t address, const Datagram& sign) {
        if (isSearching() && m_periods.back().traffic == sign.traffic &&
            m_periods.back().addresses.contains(address))
            m_periods.back().heard.insert(address);
    }

    /// The search ended, with @p told to the listeners, null: nothing; listens() has been told.
    void ended(const protocol::InterfaceSearch::Result* told) {
        const Addresses found = judge();
        const bool confirmed = m_found && found.contains(m_current);
        if (found.empty() || confirmed) {
            require(told == nullptr, found.empty() ? "nothing is told where no radar was heard"
                                                   : "a confirmed address is not told again");
        } else {
            require(told != nullptr, "an address that heard a radar is told");
            require(Addresses(told->addresses.begin(), told->addresses.end()) == found &&
                        told->addresses.size() == found.size() && std::ranges::is_sorted(told->addresses),
                    "the addresses that heard a radar are told, in ascending order");
            require(told->previous == m_current, "the address in force so far is told");
            require(told->byBeacon == (m_periods.back().traffic == Traffic::Beacon),
                    "beacons are told as such");
            m_current = *found.rbegin();
        }
        ++m_lan.counts[confirmed        ? "searches that confirmed"
                       : found.empty()  ? "searches in vain"
                       : told->byBeacon ? "searches led by beacons"
                                        : "searches led by answers"];
        m_found = !found.empty();
        m_searchEnd = m_lan.now();
    }

    /// @p address is in force without a search; one in progress is given up.
    void configured(std::uint32_t address) {
        m_periods.clear();
        m_searched.clear(); // the next search need not wait
        m_searchEnd = m_lan.now();
        m_current = address;
    }

    /// There is no local address to search.
    void foundNoAddress() {
        if (isSearching())
            return; // a search runs its time
        m_searched.clear();
        m_found = false;
        m_searchEnd = m_lan.now();
    }

    /// At any time.
    void look(const Addresses& local) const {
        if (isSearching()) {
            requireEnd(m_periods.back());
            return;
        }
        const Time paused = m_lan.now() - m_searchEnd;
        require(paused <= kPause + kSlack, "a pause ends after 5 seconds");
        require(local == m_searched || std::min(paused, m_lan.now() - m_moved) <= kLook + kSlack,
                "other local addresses end a pause");
    }

    /// An address came, went or changed.
    void moved() { m_moved = m_lan.now(); }

    std::uint32_t current() const { return m_current; }

private:
    static constexpr Time kListening = 3000;
    static constexpr Time kJoin = 1000;
    static constexpr Time kPause = 5000;
    static constexpr Time kLook = 1000; // how soon a pause notices other addresses
    static constexpr Time kSlack = 5;

    struct Period {
        Traffic traffic;
        Addresses addresses;
        Time from; // sockets are open
        Time to = 0;
        Addresses heard;
        Addresses localAtEnd; ///< what is gone by then does not count

        Addresses found() const {
            Addresses both;
            std::ranges::set_intersection(heard, localAtEnd, std::inserter(both, both.end()));
            return both;
        }
    };

    void requireEnd(const Period& period) const {
        require(m_lan.now() - period.from <= kListening + kSlack, "a listening period ends after 3 seconds");
    }

    bool isSearching() const { return !m_periods.empty() && m_periods.back().to == 0; }

    /// The addresses that the search leads to.
    Addresses judge() const {
        require(!m_periods.empty(), "a search listens");
        const Period& first = m_periods.front();
        require(first.traffic == Traffic::Beacon && first.addresses == m_searched,
                "a search begins with beacons on every local address");
        std::size_t beacons = 1;
        if (!first.heard.empty()) {
            require(m_periods.size() >= 2 && m_periods[1].traffic == Traffic::Beacon &&
                        m_periods[1].addresses == first.heard,
                    "what heard a beacon listens once more");
            beacons = 2;
            if (Addresses twice = m_periods[1].found(); !twice.empty()) {
                require(m_periods.size() == 2, "beacons that are heard twice end the search");
                return twice;
            }
        }
        require(m_periods.size() == beacons + 1 && m_periods.back().traffic == Traffic::Announcement &&
                    m_periods.back().addresses == m_searched,
                "where no beacon is heard twice, every address asks");
        const Period& answers = m_periods.back();
        require(m_queried - answers.from >= kJoin && answers.to - m_queried >= kListening - kJoin,
                "a search asks a second after joining, and waits two for answers");
        return answers.found();
    }

    Lan& m_lan;
    std::vector<Period> m_periods; // of the search in progress or ended last
    Time m_queried = -1;
    Time m_searchEnd = 0; // of the last
    Time m_moved = 0;     // when an address changed last
    Addresses m_searched; // the local addresses when the last search began
    std::uint32_t m_current = 0;
    bool m_found = false;
};

} // namespace simulation
