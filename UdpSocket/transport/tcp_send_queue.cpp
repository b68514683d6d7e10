#include <UdpSocket/transport/tcp_send_queue.h>

#include <UdpSocket/base/timing.h>

#include <cstdio>
#include <utility>

namespace net::detail {

namespace {

constexpr std::size_t kLongQueue = 100; // a longer one is worth a warning

} // namespace

void SendQueue::setHeld(bool held) {
    {
        Lock lock(m_mutex);
        m_held = held;
    }
    m_changed.notify_one();
}

std::optional<std::string> SendQueue::next(const Pause& ending) {
    std::string item;
    std::size_t left = 0;
    {
        Lock lock(m_mutex);
        const auto ready = [this]() REQUIRES(m_mutex) { return !m_items.empty() && !m_held; };
        m_changed.wait_for(lock, timing().clientTick,
                           [&]() REQUIRES(m_mutex) { return ready() || ending.stopped(); });
        if (!ready() || ending.stopped())
            return std::nullopt;
        item = std::move(m_items.front());
        m_items.pop_front();
        left = m_items.size();
    }
    if (left > kLongQueue)
        std::printf("Tcp %s list size %d !!!\r\n", "asyncSend", static_cast<int>(left));
    return item;
}

void SendQueue::wake() {
    { Lock lock(m_mutex); } // next() waits, or will see the end
    m_changed.notify_all();
}

} // namespace net::detail
