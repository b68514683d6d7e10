#include <RadarWatch/pool.h>

#include <RadarWatch/stream_private.h>

#include <algorithm>

namespace radar {

using net::detail::Lock;

namespace detail {

namespace {

constexpr std::uint64_t kWakeup = 0; // streams are numbered from 1
constexpr int kReady = 64;           // descriptors a call of epoll_wait

} // namespace

PoolThread::PoolThread() {
    if (!m_sockets.add(m_wakeup.descriptor(), kWakeup))
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

std::uint64_t PoolThread::add(std::shared_ptr<StreamPrivate> stream) {
    Lock lock(m_mutex);
    m_members[m_lastNumber + 1].stream = std::move(stream);
    return ++m_lastNumber;
}

void PoolThread::remove(std::uint64_t number) {
    Member removed; // destroyed without the lock
    Lock lock(m_mutex);
    const auto found = m_members.find(number);
    if (found == m_members.end())
        return;
    removed = std::move(found->second);
    m_members.erase(found);
    lock.unlock();
}

void PoolThread::signal(std::uint64_t number) noexcept {
    {
        Lock lock(m_mutex);
        const auto found = m_members.find(number);
        if (found == m_members.end())
            return;
        found->second.signalled = true;
    }
    m_wakeup.set();
}

void PoolThread::run() {
    epoll_event ready[kReady];
    while (!m_ending) {
        const int count = ::epoll_wait(m_sockets.descriptor(), ready, kReady, -1);
        for (int i = 0; i < count && !m_ending; ++i) {
            if (ready[i].data.u64 == kWakeup)
                serveSignalled();
            else
                serve(ready[i].data.u64);
        }
    }
}

void PoolThread::serve(std::uint64_t number) {
    std::shared_ptr<StreamPrivate> stream;
    {
        Lock lock(m_mutex);
        if (const auto found = m_members.find(number); found != m_members.end())
            stream = found->second.stream;
    }
    if (stream)
        stream->serve();
}

void PoolThread::serveSignalled() {
    m_wakeup.clear();
    for (std::uint64_t number = 0; !m_ending;) {
        {
            Lock lock(m_mutex);
            auto next = m_members.upper_bound(number);
            next = std::find_if(next, m_members.end(),
                                [](const auto& member) { return member.second.signalled; });
            if (next == m_members.end())
                return;
            number = next->first;
            next->second.signalled = false;
        }
        serve(number);
    }
}

void PoolThread::end() {
    m_ending = true;
    m_wakeup.set();
}

} // namespace detail

PoolPrivate::PoolPrivate(unsigned threads) {
    try {
        for (unsigned i = 0; i < std::max(threads, 1U); ++i) {
            const auto thread = std::make_shared<detail::PoolThread>();
            m_threads.push_back(thread);
            m_running.emplace_back("radar-pool", detail::kCallbackStack, [thread] { thread->run(); });
        }
    } catch (...) {
        endAll();
        throw;
    }
}

PoolPrivate::~PoolPrivate() {
    endAll();
}

void PoolPrivate::endAll() {
    for (const auto& thread : m_threads)
        thread->end();
    for (net::detail::SizedThread& running : m_running)
        running.end();
}

Pool::Pool(const Options& options)
    : d(new PoolPrivate(options.threads), &net::detail::destroy<PoolPrivate>) {}

} // namespace radar
