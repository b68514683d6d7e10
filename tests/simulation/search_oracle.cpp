#include "search_oracle.h"

#include <algorithm>
#include <iterator>

namespace simulation {

namespace {

constexpr Time kListening = 3000;
constexpr Time kJoin = 1000;
constexpr Time kPause = 5000;
constexpr Time kLook = 1000; // how soon a pause notices other addresses
constexpr Time kSlack = 5;

SearchOracle::Addresses inBoth(const SearchOracle::Addresses& a, const SearchOracle::Addresses& b) {
    SearchOracle::Addresses both;
    std::ranges::set_intersection(a, b, std::inserter(both, both.end()));
    return both;
}

} // namespace

void SearchOracle::switchedOn() {
    m_periods.clear();
    m_searched.clear();
    m_searchEnd = m_lan.now() - kPause;
    m_current = 0;
    m_found = false;
}

void SearchOracle::listens(Traffic traffic, const Addresses& to, const Addresses& local) {
    const Time now = m_lan.now();
    if (isSearching()) {
        Period& period = m_periods.back();
        period.to = now;
        period.localAtEnd = local;
        require(now - period.from >= kListening, "a listening period lasts 3 seconds");
        require(now - period.from <= kListening + kSlack, "a listening period ends after 3 seconds");
    } else if (!to.empty()) {
        require(now - m_searchEnd >= kPause || local != m_searched, "searches pause for 5 seconds");
        m_periods.clear();
        m_searched = local;
    }
    if (!to.empty())
        m_periods.push_back({traffic, to, now, 0, {}, {}});
}

void SearchOracle::heard(std::uint32_t address, const Datagram& sign) {
    if (isSearching() && m_periods.back().traffic == sign.traffic &&
        m_periods.back().addresses.contains(address))
        m_periods.back().heard.insert(address);
}

/// The addresses that the search leads to.
SearchOracle::Addresses SearchOracle::judge() const {
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
        if (Addresses twice = inBoth(m_periods[1].heard, m_periods[1].localAtEnd); !twice.empty()) {
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
    return inBoth(answers.heard, answers.localAtEnd);
}

void SearchOracle::ended(const protocol::InterfaceSearch::Result* told) {
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
        require(told->byBeacon == (m_periods.back().traffic == Traffic::Beacon), "beacons are told as such");
        m_current = *found.rbegin();
    }
    ++m_lan.counts[confirmed        ? "searches that confirmed"
                   : found.empty()  ? "searches in vain"
                   : told->byBeacon ? "searches led by beacons"
                                    : "searches led by answers"];
    m_found = !found.empty();
    m_searchEnd = m_lan.now();
}

void SearchOracle::configured(std::uint32_t address) {
    m_periods.clear();
    m_searched.clear(); // the next search need not wait
    m_searchEnd = m_lan.now();
    m_current = address;
}

void SearchOracle::foundNoAddress() {
    if (isSearching())
        return; // a search runs its time
    m_searched.clear();
    m_found = false;
    m_searchEnd = m_lan.now();
}

void SearchOracle::look(const Addresses& local) const {
    if (isSearching())
        return;
    const Time paused = m_lan.now() - m_searchEnd;
    require(paused <= kPause + kSlack, "a pause ends after 5 seconds");
    require(local == m_searched || std::min(paused, m_lan.now() - m_moved) <= kLook + kSlack,
            "other local addresses end a pause");
}

} // namespace simulation
