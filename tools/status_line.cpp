#include "status_line.h"

#include "output.h"

#include <unistd.h>

#include <cstdio>

StatusLine::StatusLine() : m_isShown(canMoveCursor(STDERR_FILENO)) {}

void StatusLine::wipe() {
    if (m_shown.empty())
        return;
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
    m_shown.clear();
}

void StatusLine::show(const std::string& text) {
    if (!m_isShown || text == m_shown)
        return;
    // No wrapping meanwhile: a line that the terminal breaks could not be taken back.
    std::fprintf(stderr, "\r\x1b[K\x1b[?7l%s\x1b[?7h", text.c_str());
    std::fflush(stderr);
    m_shown = text;
}
