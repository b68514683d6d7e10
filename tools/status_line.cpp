#include "status_line.h"

#include <unistd.h>

#include <cstdio>

StatusLine::StatusLine() : m_isTerminal(::isatty(STDERR_FILENO) == 1) {}

StatusLine::~StatusLine() {
    if (!m_shown.empty())
        std::fputs("\r\x1b[K", stderr);
}

void StatusLine::show(const std::string& text) {
    if (!m_isTerminal || text == m_shown)
        return;
    // No wrapping meanwhile: a line that the terminal breaks could not be taken back.
    std::fprintf(stderr, "\r\x1b[K\x1b[?7l%s\x1b[?7h", text.c_str());
    std::fflush(stderr);
    m_shown = text;
}
