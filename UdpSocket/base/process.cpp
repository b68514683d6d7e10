#include <UdpSocket/base/process.h>

#include <pthread.h>

#include <atomic>

namespace net::detail {

namespace {

std::atomic<unsigned int> s_generation = 0;
std::atomic<StaticMutex*> s_mutexes = nullptr;

} // namespace

/// What is done around each fork.
class Forks {
public:
    static void prepare() noexcept NOT_ANALYSED {
        for (StaticMutex* mutex = s_mutexes; mutex != nullptr; mutex = mutex->m_next)
            mutex->lock();
    }
    static void resume() noexcept NOT_ANALYSED {
        for (StaticMutex* mutex = s_mutexes; mutex != nullptr; mutex = mutex->m_next)
            mutex->unlock();
    }
    static void begin() noexcept {
        // Ids of processes would not do: a child in another namespace of them can have its parent's.
        ++s_generation;
        resume();
    }
};

namespace {

[[maybe_unused]] const int s_registered = ::pthread_atfork(&Forks::prepare, &Forks::resume, &Forks::begin);

} // namespace

unsigned int forkGeneration() noexcept {
    return s_generation.load(std::memory_order_relaxed);
}

} // namespace net::detail
