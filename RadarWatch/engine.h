/// @file
/// What Watches and streams with the same configured local address share.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace radar::detail {

/// The way to a radar, as it is now.
struct Situation {
    std::uint32_t localAddress = 0; ///< network order; 0: none
    std::string device;             ///< its interface's name without an alias suffix
    unsigned interfaceIndex = 0;    ///< of the device
    std::uint64_t interfaceChange =
        0;                      ///< another number: the interface was replaced, and memberships are lost
    std::optional<Radar> radar; ///< none: it is not listed
};

/// What follows a radar. Called on the engine's thread, without a lock; must return quickly. std::bad_alloc
/// out of a call costs the call: a situation is told again with the next tick.
class Follower {
public:
    /// Once soon after Engine::follow, and after every change.
    virtual void onSituation(const Situation& situation) = 0;
    /// Once a second.
    virtual void onTick(std::chrono::steady_clock::time_point now) = 0;

protected:
    ~Follower() = default;
};

/// Hears announcements, asks for them once a second, and tells Watches and followers what has changed.
class Engine {
public:
    using Clock = std::chrono::steady_clock;

    /// The engine for a configured local address (0: profile.ini, or a search) of this process, made where
    /// there is none. @throws std::system_error, std::bad_alloc
    static std::shared_ptr<Engine> forAddress(std::uint32_t configured);

    /// @param name of the radar, or of a variant of it
    virtual void follow(const std::string& name, std::shared_ptr<Follower> follower) = 0;
    /// When this returns, the follower is not called any more, but where this is called from inside one.
    virtual void unfollow(const Follower* follower) = 0;

    virtual ~Engine() = default;
};

} // namespace radar::detail
