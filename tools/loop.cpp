#include "loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <system_error>

Loop::Loop() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH})
        sigaddset(&signals, number);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signals = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    m_wakes = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_signals == -1 || m_wakes == -1)
        throw std::system_error(errno, std::generic_category(), "radarctl: event descriptors");
}

Loop::~Loop() {
    ::close(m_signals);
    ::close(m_wakes);
}

Loop::Event Loop::wait(std::chrono::milliseconds timeout) {
    pollfd sources[] = {{m_signals, POLLIN, 0}, {m_wakes, POLLIN, 0}};
    if (::poll(sources, 2, timeout.count() < 0 ? -1 : static_cast<int>(timeout.count())) <= 0)
        return Event::TimeOut;
    signalfd_siginfo signal;
    if (::read(m_signals, &signal, sizeof signal) == sizeof signal)
        return signal.ssi_signo == SIGWINCH ? Event::Resize : Event::Stop;
    std::uint64_t count;
    return ::read(m_wakes, &count, sizeof count) == sizeof count ? Event::Wake : Event::TimeOut;
}

void Loop::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wakes, &one, sizeof one); // full: awake already
}
