/// @file
/// The time by which radars age, replaceable by tests, and that of arrivals.
#pragma once

#include <chrono>
#include <cstdint>

namespace net::detail {

/// Seconds since the epoch by the wall clock as it stood when the process began: they tick when that one's
/// do, suspension included, and setting it does not touch them.
std::int64_t now();

/// Of the steady clock, as it stood at the last tick of a few milliseconds: for where each datagram asks.
std::chrono::steady_clock::time_point coarseNow();

/// The wall clock's and the steady clock's time of one moment, as they stood at the last tick of a few
/// milliseconds.
struct Clocks {
    std::chrono::nanoseconds wall{0}; ///< since the epoch
    std::chrono::steady_clock::time_point steady;
    static Clocks now();
};

/// How long the machine has slept since it was started, which the steady clock leaves out; a little less
/// where the thread is held up meanwhile, never more.
std::chrono::nanoseconds timeAsleep();

/// When a datagram arrived by the steady clock, whatever was done to the wall clock by which the system
/// stamped it. @param stamp of the wall clock @param clocks read after that @param earliest of the result
std::chrono::steady_clock::time_point steadyArrival(std::chrono::nanoseconds stamp, const Clocks& clocks,
                                                    std::chrono::steady_clock::time_point earliest);

/// What the wall clock would have shown at @p moment of now(), going by its present setting: seconds since
/// the epoch.
std::int64_t wallClockAt(std::int64_t moment);

/// Makes now() answer what @p clock answers, in seconds since the epoch; null brings the system's clock back.
/// Any thread.
void setClock(std::int64_t (*clock)());

} // namespace net::detail
