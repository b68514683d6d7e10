#include "output.h"

#include "command.h"
#include "table.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
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

/// Readable when a Loop has a signal to end, which it leaves there.
int stops() {
    static const net::detail::Descriptor descriptor([] {
        sigset_t stops;
        sigemptyset(&stops);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            sigaddset(&stops, number);
        return ::signalfd(-1, &stops, SFD_CLOEXEC);
    }());
    return descriptor.get();
}

/// A copy of a standard descriptor, which takes no number of one that is closed. Of a terminal or a pipe it
/// does not block: a terminal is ready also where there is less room than a write takes.
net::detail::Descriptor openOwn(int standard) {
    const std::string path = "/proc/self/fd/" + std::to_string(standard);
    struct stat file {};
    const bool mayStand =
        ::isatty(standard) == 1 || (::fstat(standard, &file) == 0 && S_ISFIFO(file.st_mode));
    const net::detail::Descriptor own(
        mayStand ? ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : -1);
    return net::detail::Descriptor(::fcntl(own.isOpen() ? own.get() : standard, F_DUPFD_CLOEXEC, 3));
}

/// Standard error; -1: it was closed from the start.
int errors() {
    static const net::detail::Descriptor descriptor = openOwn(STDERR_FILENO);
    return descriptor.get();
}

/// @return why not all of it was written, as errno: EPIPE also where nobody takes it when a signal asks to
///         end; 0: it was
int writeAll(int descriptor, const std::string& text) {
    constexpr int kPatience = 1000; // ms, with a reader that is slow
    constexpr int kPause = 20;      // ms
    pollfd sources[] = {{stops(), POLLIN, 0}, {descriptor, POLLOUT, 0}};
    for (std::size_t done = 0; done < text.size();) {
        while (::poll(sources, std::size(sources), -1) == -1 && errno == EINTR)
            continue;
        if (sources[0].revents != 0 && sources[1].revents == 0 && ::poll(sources + 1, 1, kPatience) <= 0)
            return EPIPE;
        const auto some =
            std::min<std::size_t>(text.size() - done, PIPE_BUF); // what a pipe that is ready takes
        const ssize_t count = ::write(descriptor, text.data() + done, some);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) { // a terminal with room for half of a line's end, say
            if (::poll(sources, 1, kPause) > 0)
                return EPIPE;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

} // namespace

bool canMoveCursor(int descriptor) {
    const char* kind = std::getenv("TERM");
    return ::isatty(descriptor) == 1 && (kind == nullptr || std::strcmp(kind, "dumb") != 0);
}

void tell(const std::string& text) {
    if (errors() != -1)
        writeAll(errors(), text);
}

bool tellAtOnce(const std::string& text) {
    return ::write(errors(), text.data(), text.size()) > 0;
}

void requireReplaceable(const std::string& path) {
    struct stat present {};
    if (::lstat(path.c_str(), &present) == 0 && !S_ISREG(present.st_mode))
        throw Failure(kNotAllowed, printable(path) + " is there, and no regular file");
}

Output::Output(bool verbose, const std::string& color)
    : m_descriptor(openOwn(STDOUT_FILENO)), m_colored(wantsColor(color, m_descriptor.get())) {
    const auto fail = [] {
        throw Failure(kNothingFound, std::string("standard output: ") + std::strerror(errno));
    };
    if (!m_descriptor.isOpen())
        fail();
    std::signal(SIGPIPE, SIG_IGN); // write tells
    if (errors() != -1)            // looked at before something else takes the number of one that is closed
        ::dup2(errors(), STDERR_FILENO); // what the library says there waits for nobody either
    const net::detail::Descriptor diagnostics(verbose ? ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)
                                                      : ::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (stops() == -1 || !diagnostics.isOpen() || ::dup2(diagnostics.get(), STDOUT_FILENO) == -1)
        fail();
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

void Output::write(const std::string& text) const {
    const int error = writeAll(m_descriptor.get(), text);
    if (error == EPIPE)
        throw ReaderGone();
    if (error != 0)
        throw Failure(kNothingFound, std::string("cannot write the output: ") + std::strerror(error));
}
