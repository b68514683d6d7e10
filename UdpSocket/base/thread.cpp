#include <UdpSocket/base/thread.h>

#include <UdpSocket/base/line_limit.h>

namespace net::detail {

sigset_t threadSignals() noexcept {
    sigset_t signals;
    sigfillset(&signals);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGPROF})
        sigdelset(&signals, signal);
    return signals;
}

void reportOutOfMemory(const char* step) noexcept {
    static LineLimit limit(1);
    limit.print(stderr, "%s was lost: out of memory\n", step);
}

} // namespace net::detail
