#include "loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <system_error>

namespace {

/// As nohup has SIGHUP, and a shell SIGINT of what it starts in the background.
bool isIgnored(int number) {
    struct sigaction action {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

Loop::Loop() {
    sigemptyset(&m_taken);
    take({SIGINT, SIGTERM, SIGHUP, SIGWINCH});
    m_wakes = net::detail::Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_signals.isOpen() || !m_wakes.isOpen())
        throw std::system_error(errno, std::generic_category(), "event descriptors");
}

void Loop::take(std::initializer_list<int> signals) {
    for (const int number : signals)
        if (!isIgnored(number)) // a blocked signal would come all the same
            sigaddset(&m_taken, number);
    ::sigprocmask(SIG_BLOCK, &m_taken, nullptr);
    m_signals = net::detail::Descriptor(::signalfd(-1, &m_taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

void Loop::takeTerminal(int descriptor) {
    m_terminal = descriptor;
    take({SIGQUIT, SIGTSTP, SIGCONT});
}

void Loop::watch(int descriptor) {
    m_watched.push_back(descriptor);
}

Loop::Event Loop::wait(std::chrono::nanoseconds timeout) {
    std::vector<pollfd> sources = {
        {m_signals.get(), POLLIN, 0}, {m_terminal, POLLIN, 0}, {m_wakes.get(), POLLIN, 0}};
    for (const int descriptor : m_watched)
        sources.push_back({descriptor, POLLIN, 0});
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), static_cast<long>((timeout - seconds).count())};
    if (::ppoll(sources.data(), sources.size(), timeout.count() < 0 ? nullptr : &limit, nullptr) <= 0)
        return Event::TimeOut;
    signalfd_siginfo signal;
    if (::read(m_signals.get(), &signal, sizeof signal) == sizeof signal)
        switch (signal.ssi_signo) {
        case SIGWINCH:
            return Event::Resize;
        case SIGTSTP:
            return Event::Suspend;
        case SIGCONT:
            return Event::Resume;
        default:
            ::raise(static_cast<int>(signal.ssi_signo)); // stays, for what is still to be written
            return Event::Stop;
        }
    if (sources[1].revents != 0)
        return Event::Input;
    std::uint64_t count;
    const bool woken = ::read(m_wakes.get(), &count, sizeof count) == sizeof count;
    for (std::size_t i = 3; i < sources.size(); ++i)
        if (sources[i].revents != 0)
            return Event::Wake;
    return woken ? Event::Wake : Event::TimeOut;
}

void Loop::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wakes.get(), &one, sizeof one); // full: awake already
}
