/// @file
/// What an hour on a LAN consists of, and what happens in it.
#pragma once

#include "lan.h"

namespace simulation {

struct Scenario {
    const char* name;
    std::uint32_t hosts;
    std::uint32_t displays;
};

inline constexpr Scenario kSmall{"small", 3, 2};
/// All hosts of the plan.
inline constexpr Scenario kFull{"full", 49, 20};

struct Outcome {
    std::string failure; ///< empty: none; the property that does not hold
    std::string steps;   ///< the last ones
    Counts counts;
};

/// @param seconds of virtual time
Outcome simulate(const Scenario& scenario, std::uint64_t seed, std::int64_t seconds);

} // namespace simulation
