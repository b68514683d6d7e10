// A search for the radars' interface. Each byte is an event: a sign of a radar, an address that comes or
// goes, time that passes, a configured address, sockets that open late.
#include "support.h"

#include <UdpSocket/protocol/interface_search.h>

#include <algorithm>
#include <utility>

namespace {

using protocol::InterfaceSearch;
using Phase = InterfaceSearch::Phase;

constexpr std::pair<Phase, Phase> kMoves[] = {
    {Phase::Pause, Phase::FirstBeacons},    {Phase::FirstBeacons, Phase::SecondBeacons},
    {Phase::FirstBeacons, Phase::Joining},  {Phase::SecondBeacons, Phase::Pause},
    {Phase::SecondBeacons, Phase::Joining}, {Phase::Joining, Phase::Answers},
    {Phase::Answers, Phase::Pause},
};

/// Looks after every event at what must hold.
class Search {
public:
    void hear(std::uint32_t address) {
        if (m_search.listening().contains(address))
            m_heard[static_cast<std::size_t>(m_search.phase())].insert(address);
        m_search.heard(address);
    }
    void comesOrGoes(std::uint32_t address) {
        if (m_there.erase(address) == 0)
            m_there.insert(address);
    }
    void pass(std::chrono::milliseconds time) {
        m_now += time;
        const Phase before = m_search.phase();
        const std::uint32_t current = m_search.current();
        const bool over = m_now >= m_search.phaseEnd();
        const auto result = m_search.advance(m_now, m_there);
        const Phase after = m_search.phase();
        fuzz::require(over || before == Phase::Pause || after == before);
        fuzz::require(after == before ||
                      std::ranges::find(kMoves, std::pair(before, after)) != std::end(kMoves));
        fuzz::require(m_search.listening().empty() == (after == Phase::Pause));
        fuzz::require(!over || m_search.phaseEnd() > m_now);
        if (result)
            look(*result, current, before);
        else
            fuzz::require(m_search.current() == current);
        if (after == Phase::FirstBeacons && before == Phase::Pause)
            for (auto& heard : m_heard)
                heard.clear();
    }
    void configure(std::uint32_t address) {
        m_search.configure(address);
        fuzz::require(m_search.phase() == Phase::Pause && m_search.current() == address);
    }
    void opened() { m_search.listeningSince(m_now); }

private:
    const InterfaceSearch::Addresses& heardIn(Phase phase) const {
        return m_heard[static_cast<std::size_t>(phase)];
    }

    void look(const InterfaceSearch::Result& result, std::uint32_t previous, Phase before) const {
        fuzz::require(m_search.phase() == Phase::Pause && result.previous == previous);
        fuzz::require(!result.addresses.empty() && m_search.current() == result.addresses.back());
        fuzz::require(std::ranges::is_sorted(result.addresses));
        fuzz::require(before == (result.byBeacon ? Phase::SecondBeacons : Phase::Answers));
        for (const std::uint32_t address : result.addresses) {
            fuzz::require(m_there.contains(address));
            if (result.byBeacon)
                fuzz::require(heardIn(Phase::FirstBeacons).contains(address) &&
                              heardIn(Phase::SecondBeacons).contains(address));
            else
                fuzz::require(heardIn(Phase::Joining).contains(address) ||
                              heardIn(Phase::Answers).contains(address));
        }
    }

    InterfaceSearch m_search{net::detail::SearchTiming{}};
    InterfaceSearch::TimePoint m_now{std::chrono::hours(1)};
    InterfaceSearch::Addresses m_there{0, 1}; // 0 is what stands for all where the system lists none
    InterfaceSearch::Addresses m_heard[5];    // by phase, in this search
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Search search;
    for (const std::uint8_t event : std::basic_string_view(data, size)) {
        const std::uint32_t value = event >> 3;
        switch (event % 8) {
        case 0:
        case 1:
        case 2:
            search.hear(value % 4);
            break;
        case 3:
            search.comesOrGoes(value % 4);
            break;
        case 4:
            search.configure(value % 4);
            break;
        case 5:
            search.opened();
            break;
        default:
            search.pass(std::chrono::milliseconds(value * 250));
        }
    }
    return 0;
}
