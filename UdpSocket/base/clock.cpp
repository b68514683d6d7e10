#include <UdpSocket/base/clock.h>

#include <algorithm>
#include <atomic>
#include <ctime>

namespace net::detail {

namespace {

using Steady = std::chrono::steady_clock;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::chrono::milliseconds kTick(10); // the longest that a kernel's clocks stand still

std::int64_t nanoseconds(clockid_t clock) {
    std::timespec time{};
    ::clock_gettime(clock, &time); // cannot fail
    return time.tv_sec * kSecond + time.tv_nsec;
}

/// How far the wall clock is ahead of the time since the machine was started.
std::int64_t wallClockLead() {
    return nanoseconds(CLOCK_REALTIME) - nanoseconds(CLOCK_BOOTTIME);
}

const std::int64_t s_firstLead = wallClockLead();

std::int64_t systemClock() {
    return (nanoseconds(CLOCK_BOOTTIME) + s_firstLead) / kSecond;
}

std::atomic<std::int64_t (*)()> s_clock = &systemClock;

} // namespace

std::int64_t now() {
    return s_clock.load()();
}

Steady::time_point coarseNow() {
    return Steady::time_point(std::chrono::nanoseconds(nanoseconds(CLOCK_MONOTONIC_COARSE)));
}

Clocks Clocks::now() {
    Clocks clocks;
    do { // both of the same tick
        clocks.steady = coarseNow();
        clocks.wall = std::chrono::nanoseconds(nanoseconds(CLOCK_REALTIME_COARSE));
    } while (coarseNow() != clocks.steady);
    return clocks;
}

std::chrono::nanoseconds timeAsleep() {
    const std::int64_t sinceStart = nanoseconds(CLOCK_BOOTTIME); // read first
    return std::chrono::nanoseconds(sinceStart - nanoseconds(CLOCK_MONOTONIC));
}

Steady::time_point steadyArrival(std::chrono::nanoseconds stamp, const Clocks& clocks,
                                 Steady::time_point earliest) {
    const Steady::time_point arrival = clocks.steady - (clocks.wall - stamp);
    return std::max(earliest, std::min(arrival, clocks.steady + kTick));
}

std::int64_t wallClockAt(std::int64_t moment) {
    if (s_clock.load() != &systemClock)
        return moment;
    const std::int64_t wasSet = wallClockLead() - s_firstLead;
    return moment + (wasSet + (wasSet < 0 ? -kSecond : kSecond) / 2) / kSecond;
}

void setClock(std::int64_t (*clock)()) {
    s_clock = clock != nullptr ? clock : &systemClock;
}

} // namespace net::detail
