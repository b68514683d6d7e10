/// @file
/// What goes on, for the person who waits.
#pragma once

#include <string>

/// One line on standard error where that is a terminal that can move its cursor, kept up to date and wiped at
/// the end; else nothing.
class StatusLine {
public:
    StatusLine();
    ~StatusLine() { wipe(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    bool isShown() const { return m_isShown; }
    /// @param text printable
    void show(const std::string& text);
    /// Makes room for other output; the next show() brings the line back.
    void wipe();

private:
    const bool m_isShown;
    std::string m_shown;
};
