#include "screen.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <limits>
#include <string_view>

namespace {

constexpr int kTop = std::numeric_limits<int>::min();
constexpr int kBottom = std::numeric_limits<int>::max();

/// What a key sends. Terminals know two forms of some.
struct Key {
    std::string_view sequence;
    int lines;  // by which it scrolls
    bool pages; // count instead of lines
};
constexpr Key kKeys[] = {
    {"\x1b[A", -1, false},
    {"\x1bOA", -1, false},
    {"\x1b[B", 1, false},
    {"\x1bOB", 1, false},
    {"\x1b[5~", -1, true},
    {"\x1b[6~", 1, true},
    {" ", 1, true},
    {"\x1b[H", kTop, false},
    {"\x1bOH", kTop, false},
    {"\x1b[1~", kTop, false},
    {"\x1b[F", kBottom, false},
    {"\x1bOF", kBottom, false},
    {"\x1b[4~", kBottom, false},
};

} // namespace

Screen::Screen(const Output& output) : m_output(output) {
    m_hasKeys = ::tcgetattr(STDIN_FILENO, &m_before) == 0;
}

Screen::~Screen() {
    try {
        giveBack();
    } catch (...) { // the terminal has gone, and the process ends for that reason
    }
}

void Screen::resume() const {
    if (m_hasKeys) {
        termios keys = m_before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // signals stay with the terminal
        keys.c_cc[VMIN] = 0;
        keys.c_cc[VTIME] = 0;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &keys); // a terminal may stand
    }
    m_output.write("\x1b[?1049h\x1b[?25l");
}

void Screen::giveBack() const {
    if (m_hasKeys)
        ::tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
    m_output.write("\x1b[?25h\x1b[?1049l");
}

void Screen::suspend() {
    giveBack();
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    ::raise(SIGTSTP);
    ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr); // here it stops, where a shell is there to go on with it
    ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    resume();
}

bool Screen::readKeys() {
    char typed[64];
    const ssize_t length = ::read(STDIN_FILENO, typed, sizeof typed);
    if (length <= 0)
        return length < 0 && (errno == EINTR || errno == EAGAIN);
    for (std::string_view rest(typed, static_cast<std::size_t>(length)); !rest.empty();) {
        if (rest[0] == 'q')
            return false;
        const Key* const key = std::ranges::find_if(
            kKeys, [rest](const Key& known) { return rest.starts_with(known.sequence); });
        if (key == std::end(kKeys)) {
            rest.remove_prefix(1);
            continue;
        }
        rest.remove_prefix(key->sequence.size());
        if (key->lines == kTop || key->lines == kBottom)
            m_first = key->lines == kTop ? 0 : kBottom; // draw() knows where the bottom is
        else
            m_first = static_cast<int>(std::clamp<std::int64_t>(
                std::int64_t{m_first} + key->lines * (key->pages ? m_page : 1), 0, kBottom));
    }
    return true;
}

void Screen::draw(const Picture& picture) {
    const auto rows = m_output.terminalSize().rows;
    const auto size = [](const std::vector<std::string>& lines) { return static_cast<int>(lines.size()); };
    const int room = rows - size(picture.heading) - size(picture.notes);
    const bool scrolls = size(picture.body) > room;
    m_page = std::max(1, scrolls ? room - 1 : room);
    m_first = std::clamp(m_first, 0, std::max(0, size(picture.body) - m_page));
    const int end = std::min(size(picture.body), m_first + m_page);

    std::vector<std::string> lines = picture.heading;
    lines.insert(lines.end(), picture.body.begin() + m_first, picture.body.begin() + end);
    if (scrolls)
        lines.push_back(m_output.styled(Output::Style::Dim, "lines " + std::to_string(m_first + 1) + " to " +
                                                                std::to_string(end) + " of " +
                                                                std::to_string(picture.body.size()) +
                                                                (m_hasKeys ? "; arrows, PgDn scroll" : "")));
    lines.insert(lines.end(), picture.notes.begin(), picture.notes.end());
    lines.resize(std::min(lines.size(), static_cast<std::size_t>(rows)));
    std::string text = "\x1b[H\x1b[?7l"; // what is wider than the terminal is cut, not wrapped
    for (std::size_t i = 0; i < lines.size(); ++i)
        text += (i == 0 ? "\x1b[K" : "\r\n\x1b[K") + lines[i];
    m_output.write(text + "\x1b[J\x1b[?7h");
}
