#include <UdpSocket/base/process.h>

#include <pthread.h>

#include <atomic>
#include <utility>

namespace net::detail {

namespace {

std::atomic<unsigned int> s_generation = 0;
std::atomic<StaticMutex*> s_mutexes = nullptr;

/// The innermost. Of the static block, since a thread's first use of any other takes memory, and where there
/// is none ends the process.
[[gnu::tls_model("initial-exec")]] thread_local const ProcessBound::Call* t_call = nullptr;

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

ProcessBound::Call::Call(const ProcessBound& caller) noexcept
    : m_caller(caller), m_outer(std::exchange(t_call, this)) {}
ProcessBound::Call::~Call() {
    t_call = m_outer;
}

bool ProcessBound::isCalling() const noexcept {
    for (const Call* call = t_call; call != nullptr; call = call->m_outer)
        if (&call->m_caller == this)
            return true;
    return false;
}

StaticMutex::StaticMutex() noexcept : m_next(s_mutexes) {
    while (!s_mutexes.compare_exchange_weak(m_next, this)) {
    }
}

} // namespace net::detail
