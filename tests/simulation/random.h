/// @file
/// The simulation's own random numbers: the same with every standard library.
#pragma once

#include <cstdint>

namespace simulation {

/// SplitMix64.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t bits() {
        m_state += 0x9E3779B97F4A7C15;
        std::uint64_t mixed = m_state;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return mixed ^ (mixed >> 31);
    }
    /// From 0 to @p end - 1. @param end at least 1
    std::uint32_t below(std::uint32_t end) {
        return static_cast<std::uint32_t>(((bits() >> 32) * end) >> 32);
    }
    /// Happens once in @p times on average.
    bool onceIn(std::uint32_t times) { return below(times) == 0; }

private:
    std::uint64_t m_state;
};

} // namespace simulation
