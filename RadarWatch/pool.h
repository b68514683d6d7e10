/// @file
/// The threads behind radar::Pool.
#pragma once

#include <RadarWatch/epoll_set.h>
#include <RadarWatch/radarstream.h>

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/thread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace radar {

class StreamPrivate;

namespace detail {

/// Of threads that call applications: room for what a callback does, a hundred calls deep, and 200 of them
/// take 100 MiB of the 3 GiB that a 32-bit process has, where the system's usual 8 MiB would take 1.6 GiB.
inline constexpr std::size_t kCallbackStack = 512 * 1024;

/// One thread that serves many streams. Any thread may call any operation but run().
class PoolThread {
public:
    /// @return the stream's number. @throws std::bad_alloc
    std::uint64_t add(std::shared_ptr<StreamPrivate> stream);
    /// The stream is not served any more, but for once where that has begun.
    void remove(std::uint64_t number);

    EpollSet& sockets() { return m_sockets; }
    /// Has the stream served where none of its sockets is readable.
    void signal(std::uint64_t number) noexcept;

    void run();
    void end();

    PoolThread();

private:
    void serve(std::uint64_t number);
    void serveSignalled();

    Wakeup m_wakeup;
    EpollSet m_sockets;
    std::atomic<bool> m_ending = false;
    net::detail::Mutex m_mutex;
    struct Member {
        std::shared_ptr<StreamPrivate> stream;
        bool signalled = false;
    };
    std::map<std::uint64_t, Member> m_members GUARDED_BY(m_mutex);
    std::uint64_t m_lastNumber GUARDED_BY(m_mutex) = 0;
};

} // namespace detail

/// Threads: those of the pool, from construction to destruction; where a callback on one of them destroys the
/// pool, that one ends behind the callback.
class PoolPrivate : public net::detail::ProcessBound {
public:
    explicit PoolPrivate(unsigned threads);
    ~PoolPrivate();

    /// The thread for the next stream.
    const std::shared_ptr<detail::PoolThread>& next() { return m_threads[m_next++ % m_threads.size()]; }

private:
    void endAll();

    std::vector<std::shared_ptr<detail::PoolThread>> m_threads;
    std::vector<net::detail::SizedThread> m_running;
    std::atomic<std::size_t> m_next = 0;
};

} // namespace radar
