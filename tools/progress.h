/// @file
/// What a search is doing, for the person who waits.
#pragma once

#include <chrono>
#include <string>

/// One line on standard error where that is a terminal, kept up to date and wiped at the end; else nothing.
class Progress {
public:
    /// @param deadline when the search gives up
    explicit Progress(std::chrono::steady_clock::time_point deadline);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// @param localIp the address that was found, network order; 0 while that is being searched
    void show(unsigned int localIp);

private:
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    const std::chrono::steady_clock::time_point m_deadline;
    const bool m_isTerminal;
    std::string m_shown;
};
