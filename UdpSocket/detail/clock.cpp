#include <UdpSocket/detail/clock.h>

#include <atomic>
#include <ctime>

namespace net::detail {

namespace {

std::int64_t systemClock() {
    return std::time(nullptr);
}

std::atomic<std::int64_t (*)()> s_clock = &systemClock;

} // namespace

std::int64_t now() {
    return s_clock.load()();
}

void setClock(std::int64_t (*clock)()) {
    s_clock = clock != nullptr ? clock : &systemClock;
}

} // namespace net::detail
