/// @file
/// What an hour on a LAN consists of, and what happens in it.
#pragma once

#include "counts.h"

#include <cstdint>
#include <string>

namespace simulation {

struct Scenario {
    const char* name;
    std::uint32_t hosts;
    std::uint32_t displays;
    std::uint32_t keptNames; ///< forged names that are kept alive
};

/// 3 hosts, 2 displays, an attacker.
inline constexpr Scenario kSmall{"small", 3, 2, 0};
/// All hosts of the plan, with 500 names in all, 20 displays, an attacker.
inline constexpr Scenario kFull{"full", 49, 20, 400};

struct Outcome {
    std::string failure; ///< empty: none; the property that does not hold
    std::string steps;   ///< the last ones
    Counts counts;
};

/// @param seconds of virtual time
Outcome simulate(const Scenario& scenario, std::uint64_t seed, std::int64_t seconds);

} // namespace simulation
