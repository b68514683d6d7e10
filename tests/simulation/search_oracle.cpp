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
constexpr Time kMaxGap = 1900;     // of signs that cannot miss a listening period
constexpr Time kMaxSettle = 24000; // a search missed by a moment, a pause, and the next: 9 + 5 + 9 seconds

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
    m_runs.clear();
}

void SearchOracle::listens(Traffic traffic, const Addresses& to, const Addresses& local) {
    const Time now = m_lan.now();
    const bool searching = !m_periods.empty() && m_periods.back().to == 0;
    if (searching) {
        m_periods.back().to = now;
        m_periods.back().localAtEnd = local;
        require(now - m_periods.back().from >= kListening, "a listening period lasts 3 seconds");
        require(m_display.frozenSince(m_periods.back().from) ||
                    now - m_periods.back().from <= kListening + kSlack,
                "a listening period ends after 3 seconds");
    } else if (!to.empty()) {
        require(now - m_searchEnd >= kPause || local != m_searched, "searches pause for 5 seconds");
        m_periods.clear();
        m_searched = local;
    }
    if (!to.empty())
        m_periods.push_back({traffic, to, now, 0, {}, {}});
}

void SearchOracle::heard(std::uint32_t address, const Datagram& sign) {
    const Time now = m_lan.now();
    if (!m_periods.empty() && m_periods.back().to == 0 && m_periods.back().traffic == sign.traffic &&
        m_periods.back().addresses.contains(address))
        m_periods.back().heard.insert(address);
    Run& run = m_runs[address].try_emplace(sign.traffic, Run{now, now}).first->second;
    if (now - run.last > kMaxGap || m_display.frozenSince(run.since))
        run.since = now;
    run.last = now;
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
        ++(told->byBeacon ? m_counts.foundByBeacon : m_counts.foundByAnswer);
    }
    m_counts.confirmed += confirmed ? 1 : 0;
    m_counts.inVain += found.empty() ? 1 : 0;
    m_found = !found.empty();
    m_searchEnd = m_lan.now();
}

void SearchOracle::configured(std::uint32_t address) {
    m_periods.clear();
    m_searched.clear(); // the next search need not wait
    m_searchEnd = m_lan.now();
    m_runs.clear();
    m_current = address;
}

void SearchOracle::foundNoAddress() {
    if (!m_periods.empty() && m_periods.back().to == 0)
        return; // a search runs its time
    m_searched.clear();
    m_found = false;
    m_searchEnd = m_lan.now();
}

void SearchOracle::look(const Addresses& local) {
    const Time now = m_lan.now();
    const bool searching = !m_periods.empty() && m_periods.back().to == 0;
    const Time paused = now - m_searchEnd;
    if (!searching && !m_display.frozenSince(m_searchEnd)) {
        require(paused <= kPause + kSlack, "a pause ends after 5 seconds");
        require(local == m_searched || std::min(paused, now - m_moved) <= kLook + kSlack,
                "other local addresses end a pause");
    }
    const auto isRun = [&](const Run& run) {
        return now - run.last <= kMaxGap && now - run.since >= kMaxSettle &&
               !m_display.frozenSince(run.since);
    };
    const bool heardAllTheTime = std::ranges::any_of(m_runs, [&](const auto& entry) {
        return local.contains(entry.first) &&
               std::ranges::any_of(entry.second, [&](const auto& run) { return isRun(run.second); });
    });
    if (!heardAllTheTime)
        return;
    ++m_counts.heardAllTheTime;
    require(m_current != 0, "a radar that is heard all the time is found");
    const auto current = m_runs.find(m_current);
    require(current == m_runs.end() ||
                std::ranges::any_of(current->second,
                                    [&](const auto& run) { return now - run.second.last <= kMaxSettle; }),
            "the address in force is one that heard a radar");
}

} // namespace simulation
