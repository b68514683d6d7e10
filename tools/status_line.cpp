#include "status_line.h"

#include "output.h"

#include <unistd.h>

StatusLine::StatusLine() : m_isShown(canMoveCursor(STDERR_FILENO)) {}

void StatusLine::wipe() {
    if (m_shown.empty())
        return;
    tell("\r\x1b[K");
    m_shown.clear();
}

void StatusLine::show(const std::string& text) {
    if (!m_isShown || text == m_shown)
        return;
    // No wrapping meanwhile: a line that the terminal breaks could not be taken back. Nobody's work waits for
    // a terminal that stands.
    if (tellAtOnce("\r\x1b[K\x1b[?7l" + text + "\x1b[?7h"))
        m_shown = text;
}
