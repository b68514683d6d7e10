/// @file
/// What a running subcommand waits for.
#pragma once

#include <chrono>

/// Takes SIGINT, SIGTERM, SIGHUP and SIGWINCH as events instead of interruptions. Make it before anything
/// that starts threads.
class Loop {
public:
    enum class Event { Stop, Resize, Wake, TimeOut };

    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Waits for the next event; a negative @p timeout waits for ever.
    Event wait(std::chrono::milliseconds timeout);
    /// Makes wait() return Wake. Any thread.
    void wake();

private:
    int m_signals; // signalfd
    int m_wakes;   // eventfd
};
