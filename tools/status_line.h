/// @file
/// What goes on, for the person who waits.
#pragma once

#include <string>

/// One line on standard error where that is a terminal, kept up to date and wiped at the end; else nothing.
class StatusLine {
public:
    StatusLine();
    ~StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    bool isShown() const { return m_isTerminal; }
    /// @param text printable
    void show(const std::string& text);

private:
    const bool m_isTerminal;
    std::string m_shown;
};
