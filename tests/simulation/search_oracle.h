/// @file
/// What must hold of a display's search for the radars' interface, by what it listened to and what came.
#pragma once

#include "lan.h"

#include <UdpSocket/protocol/interface_search.h>

#include <set>

namespace simulation {

/// Properties: a search listens to beacons for 3 seconds on every local address, for 3 more on those that
/// heard some, and where none heard some twice asks on every address: a second after joining, two before the
/// end. What heard a radar, and is still there, is told in ascending order, unless the last search found one
/// and the address in force is among them. The next search begins after 5 seconds, or as soon as the local
/// addresses are others than those searched.
class SearchOracle {
public:
    using Addresses = std::set<std::uint32_t>;

    explicit SearchOracle(Lan& lan) : m_lan(lan) {}

    void switchedOn();
    /// The display listens to something else from now on. @param to empty: to nothing
    void listens(Traffic traffic, const Addresses& to, const Addresses& local);
    void queries() { m_queried = m_lan.now(); }
    /// @p sign reached a local address.
    void heard(std::uint32_t address, const Datagram& sign);
    /// The search ended, with @p told to the listeners, null: nothing; listens() has been told.
    void ended(const protocol::InterfaceSearch::Result* told);
    /// @p address is in force without a search; one in progress is given up.
    void configured(std::uint32_t address);
    /// There is no local address to search.
    void foundNoAddress();
    /// At any time.
    void look(const Addresses& local) const;
    /// An address came, went or changed.
    void moved() { m_moved = m_lan.now(); }

    std::uint32_t current() const { return m_current; }

private:
    struct Period {
        Traffic traffic;
        Addresses addresses;
        Time from;
        Time to = 0;
        Addresses heard;
        Addresses localAtEnd; ///< what is gone by then does not count
    };

    bool isSearching() const { return !m_periods.empty() && m_periods.back().to == 0; }
    Addresses judge() const;

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
