/// @file
/// What a running subcommand waits for.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <chrono>
#include <csignal>
#include <initializer_list>
#include <vector>

/// Takes SIGINT, SIGTERM, SIGHUP and SIGWINCH as events instead of interruptions, but for those that whoever
/// started the program has it ignore. Make it before anything that starts threads.
class Loop {
public:
    enum class Event { Stop, Resize, Suspend, Resume, Input, Wake, TimeOut };

    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// From here on wait() also tells that the terminal has something to read (Input), that the process is to
    /// be suspended, which it is not by itself any more (Suspend), and that it goes on (Resume). SIGQUIT is
    /// an event, too: it would leave the terminal as it is.
    /// @param descriptor the terminal, not owned; -1: there is nothing to read
    void takeTerminal(int descriptor);

    /// From here on wait() returns Wake, too, while this descriptor, not owned, is readable.
    void watch(int descriptor);

    /// Waits for the next event; a negative @p timeout waits for ever. After Stop there is no other: the
    /// signal stays pending, which keeps Output from waiting for a reader that stands.
    Event wait(std::chrono::nanoseconds timeout);
    /// Makes wait() return Wake. Any thread.
    void wake();

private:
    void take(std::initializer_list<int> signals);

    int m_terminal = -1;
    std::vector<int> m_watched;
    sigset_t m_taken;
    net::detail::Descriptor m_signals; // signalfd
    net::detail::Descriptor m_wakes;   // eventfd
};
