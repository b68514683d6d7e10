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

void SizedThread::create(std::size_t stack, void* (*run)(void*), void* data) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes); // cannot fail
    int error = pthread_attr_setstacksize(&attributes, stack);
    if (error == 0) {
        const sigset_t blocked = threadSignals();
        sigset_t before;
        pthread_sigmask(SIG_SETMASK, &blocked, &before);
        error = pthread_create(&m_id, &attributes, run, data);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    pthread_attr_destroy(&attributes);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "a thread");
    m_joinable = true;
}

void SizedThread::end() noexcept {
    if (!std::exchange(m_joinable, false))
        return;
    if (pthread_equal(m_id, pthread_self()))
        pthread_detach(m_id);
    else
        pthread_join(m_id, nullptr);
}

void reportOutOfMemory(const char* step) noexcept {
    static LineLimit limit(1);
    limit.print(stderr, "%s was lost: out of memory\n", step);
}

} // namespace net::detail
