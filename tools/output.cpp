#include "output.h"

#include "command.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

bool wantsColor(const std::string& color, int descriptor) {
    if (color != "auto")
        return color == "always";
    const char* noColor = std::getenv("NO_COLOR");
    return (noColor == nullptr || *noColor == '\0') && canMoveCursor(descriptor);
}

net::detail::Descriptor openStops() {
    sigset_t stops;
    sigemptyset(&stops);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&stops, number);
    return net::detail::Descriptor(::signalfd(-1, &stops, SFD_CLOEXEC));
}

} // namespace

bool canMoveCursor(int descriptor) {
    const char* kind = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && (kind == nullptr || std::strcmp(kind, "dumb") != 0);
}

Output::Output(bool verbose, const std::string& color)
    : m_descriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)), m_stops(openStops()),
      m_colored(wantsColor(color, m_descriptor.get())) {
    std::signal(SIGPIPE, SIG_IGN); // write tells
    const net::detail::Descriptor diagnostics(verbose ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                                                      : ::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!m_descriptor.isOpen() || !m_stops.isOpen() || !diagnostics.isOpen() ||
        ::dup2(diagnostics.get(), STDOUT_FILENO) == -1) {
        throw Failure(kNothingFound, std::string("standard output: ") + std::strerror(errno));
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // diagnostics in step with standard error
}

bool Output::isTerminal() const {
    return ::isatty(m_descriptor.get()) == 1;
}

Output::Size Output::terminalSize() const {
    winsize size{};
    if (::ioctl(m_descriptor.get(), TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return {24, 80};
    return {size.ws_row, size.ws_col};
}

std::string Output::styled(Style style, const std::string& text) const {
    if (!m_colored)
        return text;
    const char* codes[] = {"1", "32", "31", "2"}; // bold, green, red, faint
    return std::string("\x1b[") + codes[static_cast<int>(style)] + "m" + text + "\x1b[0m";
}

/// @return false when a signal asks to end and there is none
bool Output::waitForRoom() const {
    pollfd sources[] = {{m_descriptor.get(), POLLOUT, 0}, {m_stops.get(), POLLIN, 0}};
    while (::poll(sources, std::size(sources), -1) == -1 && errno == EINTR)
        continue;
    return sources[0].revents != 0 || sources[1].revents == 0;
}

void Output::write(const std::string& text) const {
    for (std::size_t done = 0; done < text.size();) {
        if (!waitForRoom())
            throw ReaderGone();
        const auto some =
            std::min<std::size_t>(text.size() - done, PIPE_BUF); // what a pipe that is ready takes
        const ssize_t count = ::write(m_descriptor.get(), text.data() + done, some);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno == EPIPE) {
            throw ReaderGone();
        } else if (errno != EINTR && errno != EAGAIN) {
            throw Failure(kNothingFound, std::string("cannot write the output: ") + std::strerror(errno));
        }
    }
}
