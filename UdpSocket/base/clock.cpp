#include <UdpSocket/base/clock.h>

#include <atomic>
#include <ctime>

namespace net::detail {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

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

std::chrono::steady_clock::time_point coarseNow() {
    std::timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &time); // cannot fail
    return std::chrono::steady_clock::time_point(std::chrono::seconds(time.tv_sec) +
                                                 std::chrono::nanoseconds(time.tv_nsec));
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
