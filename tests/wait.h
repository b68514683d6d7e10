/// @file
/// Waiting for a condition instead of a time, and how long an action takes.
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

template <class Action>
std::chrono::steady_clock::duration timeOf(Action&& action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - begin;
}
