/// @file
/// What belongs to one process: the objects that it made, and the locks that its threads hold.
#pragma once

#include <UdpSocket/base/mutex.h>

#include <atomic>
#include <memory>

namespace net::detail {

/// How many forks lie between this process and the one that loaded the library.
unsigned int forkGeneration() noexcept;

/// Base of implementation objects. In a child made by fork their threads do not run, while their sockets are
/// still the parent's, and what their threads waited for is waited for without end.
class ProcessBound {
public:
    bool inOwnProcess() const noexcept { return m_generation == forkGeneration(); }

    /// Stands while an object runs a callback on a thread that its destructor would wait for.
    class Call {
    public:
        explicit Call(const ProcessBound& caller) noexcept;
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        friend class ProcessBound;
        const ProcessBound& m_caller;
        const Call* const m_outer; // on the same thread
    };
    /// Whether the calling thread is inside a Call of this object.
    bool isCalling() const noexcept;

private:
    const unsigned int m_generation = forkGeneration();
};

/// Deletes an implementation object in the process that made it. In a child it is left as it is, neither shut
/// nor joined nor freed: the child's exit ends at once, and the parent notices nothing. It is left so, too,
/// inside one of its own callbacks, where exit alone may destroy it.
template <class Private>
void destroy(Private* object) {
    if (object->inOwnProcess() && !object->isCalling())
        delete object;
}

/// The one @p Object of this process, made where it is first asked for, and never destroyed: threads may ask
/// while the program ends. A child made by fork has its own. Any thread.
template <class Object>
Object& ofThisProcess() {
    static std::atomic<Object*> s_object = nullptr;
    Object* known = s_object;
    if (known != nullptr && known->inOwnProcess())
        return *known;
    auto made = std::make_unique<Object>();
    if (s_object.compare_exchange_strong(known, made.get()))
        known = made.release();
    return *known;
}

/// A mutex of static storage. A fork waits until nobody holds it, since a child would never see it free
/// again: so its holders never wait, print, run a callback or take another lock.
class StaticMutex : public Mutex {
public:
    StaticMutex() noexcept;

private:
    friend class Forks;
    StaticMutex* m_next; // of all that there are
};

} // namespace net::detail
