/// @file
/// Threads of the library, and how their pauses are cut short.
#pragma once

#include <UdpSocket/detail/mutex.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

namespace net::detail {

/// Starts a thread with all signals blocked: signals belong to the application's threads, and one that
/// arrives in a receive call would interrupt it.
template <class Body>
std::thread startThread(Body&& body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before}; // also when the system has no thread left
    return std::thread(std::forward<Body>(body));
}

/// Starts a thread as startThread does. @return false when the system has none left (errno)
template <class Body>
bool launchThread(std::thread& thread, Body&& body) {
    try {
        thread = startThread(std::forward<Body>(body));
        return true;
    } catch (const std::system_error& error) {
        errno = error.code().value();
        return false;
    }
}

/// A pause that another thread can end for good. Any thread may call any operation.
class Pause {
public:
    /// Waits for @p duration. @return false as soon as stop() has been called, now or earlier
    template <class Duration>
    bool sleep(Duration duration) {
        Lock lock(m_mutex);
        return !m_ended.wait_for(lock, duration, [this]() REQUIRES(m_mutex) { return m_stopped; });
    }

    void stop() {
        {
            Lock lock(m_mutex);
            m_stopped = true;
        }
        m_ended.notify_all();
    }

    bool stopped() const {
        Lock lock(m_mutex);
        return m_stopped;
    }

private:
    mutable Mutex m_mutex;
    Condition m_ended;
    bool m_stopped GUARDED_BY(m_mutex) = false;
};

} // namespace net::detail
