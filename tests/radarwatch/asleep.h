/// @file
/// Threads that wait, and those that are waited for.
#pragma once

#include "../test.h"

#include <sys/types.h>

/// Whether a thread of this process waits in the system.
inline bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string number;
    std::string name;
    std::string state;
    file >> number >> name >> state;
    return state == "S";
}

/// A callback that lasts until the thread that made it waits for its end.
class LongCallback {
public:
    void operator()() {
        m_entered = true;
        EXPECT_TRUE(comesTrue([&] { return m_awaited && isAsleep(m_maker); }));
        m_left = true;
    }
    /// Whether @p end, called in the middle of it, returns behind it.
    template <class End>
    bool isAwaitedBy(End end) {
        EXPECT_TRUE(comesTrue([&] { return m_entered.load(); }));
        m_awaited = true;
        end();
        return m_left;
    }

private:
    const pid_t m_maker = ::gettid();
    std::atomic<bool> m_entered = false;
    std::atomic<bool> m_awaited = false;
    std::atomic<bool> m_left = false;
};
