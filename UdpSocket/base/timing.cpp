#include <UdpSocket/base/timing.h>

#include <UdpSocket/base/process.h>

namespace net::detail {

namespace {

StaticMutex s_mutex;
Timing s_timing GUARDED_BY(s_mutex);

} // namespace

Timing timing() {
    Lock lock(s_mutex);
    return s_timing;
}

void setTiming(const Timing& timing) {
    Lock lock(s_mutex);
    s_timing = timing;
}

} // namespace net::detail
