/// @file
/// What a TCP client sends by and by.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/thread.h>

#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace net::detail {

/// Messages in the order in which they were queued. Any thread may call any operation.
class SendQueue {
public:
    /// Queues a message unless @p refused says so, asked with the queue's mutex held. @throws std::bad_alloc
    template <class Refused>
    void add(const char* data, std::size_t length, Refused refused) {
        {
            Lock lock(m_mutex);
            if (refused())
                return;
            m_items.emplace_back(data, length);
        }
        m_changed.notify_one();
    }
    /// Has @p change happen between what is queued before it and what after it.
    template <class Change>
    void between(Change change) {
        Lock lock(m_mutex);
        change();
    }
    /// @param held while a connection is being announced: what is queued waits for it
    void setHeld(bool held);
    /// Takes the first message, waiting for it a while. @return nothing where none came, or @p ending stopped
    std::optional<std::string> next(const Pause& ending);
    /// Ends a wait in next() after its pause was stopped.
    void wake();

private:
    Mutex m_mutex;
    Condition m_changed;
    std::deque<std::string> m_items GUARDED_BY(m_mutex);
    bool m_held GUARDED_BY(m_mutex) = false;
};

} // namespace net::detail
