/// @file
/// Waiting for a condition instead of a time.
#pragma once

#include <chrono>
#include <thread>

/// Whether @p condition comes true within @p deadline.
template <class Condition>
bool comesTrue(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(15)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
