/// @file
/// Events that wait for their reader. No socket, thread, lock or clock.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <variant>

namespace radar::detail {

/// The last kKept events as they happened, and before them one a radar, host id and local address at most,
/// which stands in the place of the last that it was merged from. What came and went meanwhile is not there.
class EventQueue {
public:
    static constexpr std::size_t kKept = 1024;

    /// @throws std::bad_alloc where the event has not been taken, or an older one could not be merged
    void push(const Event& event);
    bool empty() const { return m_events.empty(); }
    const Event& front() const { return m_events.front(); }
    Event pop();

    const std::list<Event>& all() const { return m_events; }

private:
    using Events = std::list<Event>;
    /// What an event is about: the local address, a host id, or a radar.
    using Subject = std::variant<std::monostate, int, std::string>;

    static Subject subjectOf(const Event& event);
    void mergeOldest();

    Events m_events;
    Events::iterator m_recent = m_events.end(); // the first that is as it happened
    std::size_t m_recentCount = 0;
    std::map<Subject, Events::iterator> m_merged; // those before m_recent
};

} // namespace radar::detail
