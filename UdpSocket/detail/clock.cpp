#include <UdpSocket/detail/clock.h>

#include <atomic>
#include <ctime>

namespace net::detail {

namespace {

std::int64_t systemClock() {
    std::timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time); // cannot fail
    return time.tv_sec;
}

std::atomic<std::int64_t (*)()> s_clock = &systemClock;

} // namespace

std::int64_t now() {
    return s_clock.load()();
}

std::int64_t wallClockAt(std::int64_t moment) {
    return s_clock.load() == &systemClock ? moment + std::time(nullptr) - systemClock() : moment;
}

void setClock(std::int64_t (*clock)()) {
    s_clock = clock != nullptr ? clock : &systemClock;
}

} // namespace net::detail
