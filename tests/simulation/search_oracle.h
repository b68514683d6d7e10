/// @file
/// What must hold of a display's search for the radars' interface, by what it listened to and what came.
#pragma once

#include "counts.h"
#include "lan.h"

#include <UdpSocket/protocol/interface_search.h>

#include <set>

namespace simulation {

/// Properties: a search listens to beacons for 3 seconds on every local address, for 3 more on those that
/// heard some, and where none heard some twice asks on every address: a second after joining, two before the
/// end. What heard a radar, and is still there, is told in ascending order, unless the last search found one
/// and the address in force is among them. The next search begins after 5 seconds, or as soon as the local
/// addresses are others than those searched. So: where a radar is heard all the time, the address in force is
/// one that heard some.
class SearchOracle {
public:
    using Addresses = std::set<std::uint32_t>;

    SearchOracle(const Lan& lan, const Node& display, Counts& counts)
        : m_lan(lan), m_display(display), m_counts(counts) {}

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
    void look(const Addresses& local);
    /// An address was taken away, or leads elsewhere.
    void moved(std::uint32_t address) {
        m_runs.erase(address);
        m_moved = m_lan.now();
    }

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
    /// Signs of one kind through one address, none missing for long.
    struct Run {
        Time since;
        Time last;
    };

    Addresses judge() const;

    const Lan& m_lan;
    const Node& m_display;
    Counts& m_counts;
    std::vector<Period> m_periods; // of the search in progress or ended last
    Time m_queried = -1;
    Time m_searchEnd = 0; // of the last
    Time m_moved = 0;     // when an address changed last
    Addresses m_searched; // the local addresses when the last search began
    std::uint32_t m_current = 0;
    bool m_found = false;
    std::map<std::uint32_t, std::map<Traffic, Run>> m_runs;
};

} // namespace simulation
