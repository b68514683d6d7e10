/// @file
/// Who follows a radar.
#pragma once

#include <RadarWatch/engine.h>
#include <RadarWatch/state.h>

#include <UdpSocket/base/mutex.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace radar::detail {

/// Tells each follower its radar's situation where that has changed. Any thread adds and removes; one calls.
class Followers {
public:
    void add(const std::string& name, std::shared_ptr<Follower> follower);
    /// @param wait until a call of it that is in progress has ended
    void remove(const Follower* follower, bool wait);

    /// @param situationOf a radar, by its name; called without the lock
    /// @param tick its moment; none: onTick is not due
    void call(const std::function<Situation(const std::string&)>& situationOf, std::optional<TimePoint> tick);

private:
    struct Following {
        std::string name;
        std::shared_ptr<Follower> follower;
        std::optional<Situation> told;
    };

    std::list<Following>::iterator find(const Follower* follower) REQUIRES(m_mutex);
    void callOne(const Following& following, const Situation& situation, std::optional<TimePoint> tick);

    net::detail::Mutex m_mutex;
    std::list<Following> m_followers GUARDED_BY(m_mutex);
    const Follower* m_called GUARDED_BY(m_mutex) = nullptr; // a call is in progress
    net::detail::Condition m_callEnded;
};

} // namespace radar::detail
