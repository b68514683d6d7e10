/// @file
/// The simulation's own random numbers: the same with every standard library.
#pragma once

#include <cstdint>
#include <random>

namespace simulation {

/// An engine that the C++ standard fixes; its distributions are each library's own.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_engine(seed) {}

    std::uint64_t bits() { return m_engine(); }
    /// From 0 to @p end - 1. @param end at least 1
    std::uint32_t below(std::uint32_t end) {
        return static_cast<std::uint32_t>(((bits() >> 32) * end) >> 32);
    }
    /// Happens once in @p times on average.
    bool onceIn(std::uint32_t times) { return below(times) == 0; }

private:
    std::mt19937_64 m_engine;
};

} // namespace simulation
