/// @file
/// Threads of the library: how they start, what they bear, and how their pauses are cut short.
#pragma once

#include <UdpSocket/base/mutex.h>

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace net::detail {

/// The signals that a library thread blocks: they belong to the application's threads, and one that arrives
/// in a receive call would interrupt it. Not those that a fault raises in the thread itself, which crash
/// handlers take, nor SIGPROF, by which profilers look at every thread.
sigset_t threadSignals() noexcept;

/// Starts a thread. @param name at most 15 characters, for debuggers and top
/// @throws std::system_error or std::bad_alloc where the system has none left
template <class Body>
std::thread startThread(const char* name, Body&& body) {
    const sigset_t blocked = threadSignals();
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    return std::thread([name, body = std::decay_t<Body>(std::forward<Body>(body))]() mutable {
        pthread_setname_np(pthread_self(), name); // fails for a name that is too long only
        body();
    });
}

/// Starts a thread as startThread does. @return false when the system has none left (errno)
template <class Body>
bool launchThread(std::thread& thread, const char* name, Body&& body) {
    try {
        thread = startThread(name, std::forward<Body>(body));
        return true;
    } catch (const std::system_error& error) {
        errno = error.code().value();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return false;
}

/// A thread as startThread makes it, with a stack of a size of its own: where there may be hundreds, the
/// system's 8 MiB each are more than a 32-bit address space has.
class SizedThread {
public:
    SizedThread() noexcept = default;
    /// @param stack bytes
    /// @throws as startThread
    template <class Body>
    SizedThread(const char* name, std::size_t stack, Body&& body) {
        auto start = std::make_unique<Start<std::decay_t<Body>>>(
            Start<std::decay_t<Body>>{name, std::forward<Body>(body)});
        create(stack, &runStart<std::decay_t<Body>>, start.get());
        static_cast<void>(start.release()); // the thread's own from here on
    }
    SizedThread(SizedThread&& other) noexcept
        : m_id(other.m_id), m_joinable(std::exchange(other.m_joinable, false)) {}
    SizedThread& operator=(SizedThread&& other) noexcept {
        std::swap(m_id, other.m_id);
        std::swap(m_joinable, other.m_joinable);
        return *this;
    }

    bool joinable() const noexcept { return m_joinable; }
    /// Waits for its end; a thread that calls this on itself is let go instead, and ends by itself.
    void end() noexcept;

private:
    template <class Body>
    struct Start {
        const char* name;
        Body body;
    };
    template <class Body>
    static void* runStart(void* data) {
        const std::unique_ptr<Start<Body>> start(static_cast<Start<Body>*>(data));
        pthread_setname_np(pthread_self(), start->name); // fails for a name that is too long only
        start->body();
        return nullptr;
    }
    void create(std::size_t stack, void* (*run)(void*), void* data);

    pthread_t m_id{};
    bool m_joinable = false;
};

/// Writes that memory ran out to standard error, at most once a second.
/// @param step what was lost by it: "UdpReceiver: a datagram"
void reportOutOfMemory(const char* step) noexcept;

/// One step of a library thread: a datagram, message, client or pass. Memory that ran out, ours or a
/// listener's, costs the step, with a line; whatever else is thrown ends the process, its stack intact.
/// @return whether the step was completed
template <class Step>
bool runStep(const char* description, Step&& step) {
    try {
        step();
        return true;
    } catch (const std::bad_alloc&) {
        reportOutOfMemory(description);
        return false;
    }
}

/// A pause that another thread can end permanently. Any thread may call any operation.
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

    /// Makes pauses possible again, while no other thread uses this one.
    void reset() {
        Lock lock(m_mutex);
        m_stopped = false;
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
