#include <UdpSocket/protocol/interface_search.h>

#include <algorithm>
#include <iterator>

namespace protocol {

namespace {

InterfaceSearch::Addresses inBoth(const InterfaceSearch::Addresses& a, const InterfaceSearch::Addresses& b) {
    InterfaceSearch::Addresses both;
    std::ranges::set_intersection(a, b, std::inserter(both, both.end()));
    return both;
}

} // namespace

std::chrono::milliseconds InterfaceSearch::duration() const {
    switch (m_phase) {
    case Phase::FirstBeacons:
    case Phase::SecondBeacons:
        return m_timing.beacons;
    case Phase::Joining:
        return m_timing.join;
    case Phase::Answers:
        return m_timing.answers;
    case Phase::Pause:
        break;
    }
    return m_timing.pause;
}

void InterfaceSearch::enter(Phase phase, const Addresses& listening, TimePoint now) {
    if (phase != Phase::Answers)
        m_heard.clear();
    m_phase = phase;
    m_listening = listening;
    m_phaseEnd = now + duration();
}

void InterfaceSearch::heard(std::uint32_t address) {
    if (m_listening.contains(address))
        m_heard.insert(address);
}

void InterfaceSearch::configure(std::uint32_t address) {
    enter(Phase::Pause, {}, TimePoint{});
    m_phaseEnd = TimePoint::min();
    m_current = address;
}

std::optional<InterfaceSearch::Result> InterfaceSearch::advance(TimePoint now,
                                                                const Addresses& localAddresses) {
    const bool over = now >= m_phaseEnd;
    if (!over && (m_phase != Phase::Pause || localAddresses == m_searched))
        return std::nullopt;
    switch (m_phase) {
    case Phase::Pause:
        m_searched = localAddresses;
        if (m_searched.empty())
            return conclude({}, now, false);
        enter(Phase::FirstBeacons, m_searched, now);
        return std::nullopt;
    case Phase::FirstBeacons:
        if (m_heard.empty())
            enter(Phase::Joining, m_searched, now);
        else
            enter(Phase::SecondBeacons, Addresses(m_heard), now);
        return std::nullopt;
    case Phase::SecondBeacons:
        if (const Addresses heard = inBoth(m_heard, localAddresses); !heard.empty())
            return conclude(heard, now, true);
        enter(Phase::Joining, m_searched, now);
        return std::nullopt;
    case Phase::Joining:
        enter(Phase::Answers, m_searched, now);
        return std::nullopt;
    case Phase::Answers:
        return conclude(inBoth(m_heard, localAddresses), now, false);
    }
    return std::nullopt;
}

std::optional<InterfaceSearch::Result> InterfaceSearch::conclude(const Addresses& heard, TimePoint now,
                                                                 bool byBeacon) {
    enter(Phase::Pause, {}, now);
    const bool confirmed = m_found && heard.contains(m_current);
    m_found = !heard.empty();
    if (confirmed || heard.empty())
        return std::nullopt;
    Result result{byBeacon, m_current, {heard.begin(), heard.end()}};
    m_current = result.addresses.back();
    return result;
}

} // namespace protocol
