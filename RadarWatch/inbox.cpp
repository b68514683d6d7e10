#include <RadarWatch/inbox.h>

#include <new>

namespace radar::detail {

using net::detail::Lock;

namespace {

Radar aged(const Sighting& sighting, const State& present, TimePoint now) {
    const auto known = present.radars.find(sighting.radar.name);
    Radar radar = sighting.radar;
    radar.age = std::chrono::duration_cast<std::chrono::milliseconds>(
        now - (known != present.radars.end() ? known->second.heard : sighting.heard));
    return radar;
}

} // namespace

void Inbox::put(const std::vector<Event>& events) noexcept {
    Lock lock(m_mutex);
    if (m_behind)
        return; // catchUp tells them
    try {
        for (const Event& event : events)
            m_queue.push(event);
    } catch (const std::bad_alloc&) {
        m_behind = true;
    }
    if (!m_queue.empty())
        m_ready.set();
}

void Inbox::fallBehind() noexcept {
    Lock lock(m_mutex);
    m_behind = true;
}

void Inbox::catchUp(const State& present, TimePoint now) noexcept {
    Lock lock(m_mutex);
    if (!m_behind)
        return;
    try {
        State told = m_view;
        for (const Event& event : m_queue.all())
            told.apply(event);
        for (const Event& event : difference(told, present, now))
            m_queue.push(event);
        m_behind = false;
    } catch (const std::bad_alloc&) { // the next time goes on from what was put
    }
    if (!m_queue.empty())
        m_ready.set();
}

std::optional<Event> Inbox::take() {
    Lock lock(m_mutex);
    if (m_closed || m_queue.empty())
        return std::nullopt;
    m_view.apply(m_queue.front());
    std::optional<Event> event = m_queue.pop();
    m_taken = true;
    if (m_queue.empty())
        m_ready.clear();
    return event;
}

void Inbox::close() noexcept {
    Lock lock(m_mutex);
    m_closed = true;
    m_ready.set();
}

bool Inbox::isClosed() const {
    Lock lock(m_mutex);
    return m_closed;
}

std::vector<Radar> Inbox::radars(const State& present, TimePoint now) const {
    Lock lock(m_mutex);
    std::vector<Radar> radars;
    for (const auto& [name, sighting] : shown(present).radars)
        radars.push_back(aged(sighting, present, now));
    return radars;
}

std::optional<Radar> Inbox::find(std::string_view name, const State& present, TimePoint now) const {
    Lock lock(m_mutex);
    const Sighting* const found = shown(present).find(name);
    return found != nullptr ? std::optional(aged(*found, present, now)) : std::nullopt;
}

LocalAddress Inbox::localAddress(const State& present) const {
    Lock lock(m_mutex);
    return shown(present).local;
}

} // namespace radar::detail
