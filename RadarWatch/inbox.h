/// @file
/// The events of one Watch, between the engine and who takes them.
#pragma once

#include <RadarWatch/event_queue.h>
#include <RadarWatch/state.h>
#include <RadarWatch/wakeup.h>

#include <UdpSocket/base/mutex.h>

#include <optional>
#include <string_view>
#include <vector>

namespace radar::detail {

/// Any thread. Its mutex is the last that is taken.
class Inbox {
public:
    /// Where memory runs out, the inbox is behind.
    void put(const std::vector<Event>& events) noexcept;
    /// Events were lost, or there were none yet.
    void fallBehind() noexcept;
    /// Where it is behind: puts what leads from the events so far to @p present.
    void catchUp(const State& present, TimePoint now) noexcept;

    /// The next event; none: there is none, or the inbox is closed. @throws std::bad_alloc, and the event
    /// stays
    std::optional<Event> take();
    /// Readable while there are events, and from close() on.
    int descriptor() const { return m_ready.descriptor(); }
    void close() noexcept;
    bool isClosed() const;

    /// As the events taken so far tell; @p present as long as none has been taken. Ages are those of now.
    std::vector<Radar> radars(const State& present, TimePoint now) const;
    std::optional<Radar> find(std::string_view name, const State& present, TimePoint now) const;
    LocalAddress localAddress(const State& present) const;

private:
    const State& shown(const State& present) const REQUIRES(m_mutex) { return m_taken ? m_view : present; }

    Wakeup m_ready;
    mutable net::detail::Mutex m_mutex;
    EventQueue m_queue GUARDED_BY(m_mutex);
    State m_view GUARDED_BY(m_mutex); // by the events taken
    bool m_taken GUARDED_BY(m_mutex) = false;
    bool m_behind GUARDED_BY(m_mutex) = true;
    bool m_closed GUARDED_BY(m_mutex) = false;
};

} // namespace radar::detail
