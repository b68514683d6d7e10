/// @file
/// What a search is doing, for the person who waits.
#pragma once

#include "status_line.h"

#include <chrono>

/// On a status line.
class Progress {
public:
    /// @param deadline when the search gives up
    explicit Progress(std::chrono::steady_clock::time_point deadline);

    /// @param localIp the address that was found, network order; 0 while that is being searched
    void show(unsigned int localIp);

private:
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    const std::chrono::steady_clock::time_point m_deadline;
    StatusLine m_line;
};
