/// @file
/// Mutexes that say what they guard, in a way that clang checks: a guarded member that is touched without its
/// mutex is an error there. GCC sees plain standard mutexes.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif

/// On a member: it is read and written with that mutex held only.
#define GUARDED_BY(mutex) THREAD_SAFETY(guarded_by(mutex))
/// On a function, or a lambda behind its parameters: its caller holds that mutex.
#define REQUIRES(mutex) THREAD_SAFETY(exclusive_locks_required(mutex))
/// On a function: its caller does not hold that mutex.
#define EXCLUDES(mutex) THREAD_SAFETY(locks_excluded(mutex))
/// On a mutex: it is taken before that one where both are held.
#define ACQUIRED_BEFORE(mutex) THREAD_SAFETY(acquired_before(mutex))
/// On a function that the analysis cannot follow; a comment says why.
#define NOT_ANALYSED THREAD_SAFETY(no_thread_safety_analysis)

namespace net::detail {

class THREAD_SAFETY(capability("mutex")) Mutex {
public:
    void lock() THREAD_SAFETY(acquire_capability()) { m_mutex.lock(); }
    void unlock() THREAD_SAFETY(release_capability()) { m_mutex.unlock(); }

private:
    friend class Lock;
    std::mutex m_mutex;
};

/// Holds a mutex until its end, or until unlock().
class THREAD_SAFETY(scoped_lockable) Lock {
public:
    explicit Lock(Mutex& mutex) THREAD_SAFETY(acquire_capability(mutex)) : m_lock(mutex.m_mutex) {}
    ~Lock() THREAD_SAFETY(release_capability()) = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void lock() THREAD_SAFETY(acquire_capability()) { m_lock.lock(); }
    void unlock() THREAD_SAFETY(release_capability()) { m_lock.unlock(); }

private:
    friend class Condition;
    std::unique_lock<std::mutex> m_lock;
};

/// A condition variable. The lock that a wait is given is held before and after it, and whenever @p done is
/// asked; the analysis is told so by REQUIRES behind the lambda's parameters.
class Condition {
public:
    template <class Done>
    void wait(Lock& lock, Done done) NOT_ANALYSED {
        m_variable.wait(lock.m_lock, done);
    }
    /// @return what @p done says at the end
    template <class Duration, class Done>
    bool wait_for(Lock& lock, Duration duration, Done done) NOT_ANALYSED {
        return m_variable.wait_for(lock.m_lock, duration, done);
    }
    template <class Time, class Done>
    bool wait_until(Lock& lock, Time time, Done done) NOT_ANALYSED {
        return m_variable.wait_until(lock.m_lock, time, done);
    }
    void notify_one() { m_variable.notify_one(); }
    void notify_all() { m_variable.notify_all(); }

private:
    std::condition_variable m_variable;
};

} // namespace net::detail
