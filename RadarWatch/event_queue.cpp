#include <RadarWatch/event_queue.h>

#include <RadarWatch/state.h>

#include <iterator>
#include <utility>

namespace radar::detail {

namespace {

using Kind = Event::Kind;

/// Makes @p later stand for @p earlier, too. @return false: together they are no news
bool merge(const Event& earlier, Event& later) {
    switch (later.kind) {
    case Kind::Appeared: // after it left
        later.kind = Kind::Changed;
        later.changes = earlier.changes | changesBetween(earlier.radar, later.radar);
        break;
    case Kind::Changed:
        later.kind = earlier.kind;
        later.changes = earlier.kind == Kind::Changed ? earlier.changes | later.changes : 0;
        break;
    case Kind::Left:
        if (earlier.kind == Kind::Appeared)
            return false;
        later.changes = earlier.changes; // for the case that it appears again
        break;
    case Kind::Conflict:
    case Kind::ConflictEnded:
        break; // what it was before is not known here
    case Kind::LocalFound:
    case Kind::LocalChanged:
    case Kind::LocalLost:
        if (earlier.previous == 0 && later.local.address == 0)
            return false;
        later.kind = earlier.previous == 0      ? Kind::LocalFound
                     : later.local.address == 0 ? Kind::LocalLost
                                                : Kind::LocalChanged;
        later.previous = earlier.previous;
        break;
    }
    later.merged += earlier.merged + 1;
    return true;
}

} // namespace

EventQueue::Subject EventQueue::subjectOf(const Event& event) {
    switch (event.kind) {
    case Kind::Appeared:
    case Kind::Changed:
    case Kind::Left:
        return event.radar.name;
    case Kind::Conflict:
    case Kind::ConflictEnded:
        return event.hostId;
    default:
        return {};
    }
}

void EventQueue::push(const Event& event) {
    m_events.push_back(event);
    if (m_recentCount++ == 0)
        m_recent = std::prev(m_events.end());
    while (m_recentCount > kKept)
        mergeOldest();
}

void EventQueue::mergeOldest() {
    const auto [known, isFirst] = m_merged.try_emplace(subjectOf(*m_recent), m_recent);
    const auto event = m_recent++;
    --m_recentCount;
    if (isFirst)
        return;
    const auto earlier = std::exchange(known->second, event);
    const bool isNews = merge(*earlier, *event);
    m_events.erase(earlier);
    if (!isNews) {
        m_events.erase(event);
        m_merged.erase(known);
    }
}

Event EventQueue::pop() {
    const auto first = m_events.begin();
    if (first != m_recent)
        m_merged.erase(subjectOf(*first));
    else {
        ++m_recent;
        --m_recentCount;
    }
    Event event = std::move(*first);
    m_events.erase(first);
    return event;
}

} // namespace radar::detail
