/// @file
/// What happened in the simulation: a property that nothing puts to the test is no property.
#pragma once

#include <cstdint>
#include <string>

namespace simulation {

struct Counts {
    std::uint64_t logins = 0, givenUp = 0, givenUpToSelf = 0, kept = 0, heldTwice = 0, oneHeldTwice = 0;
    std::uint64_t namesListed = 0, namesRemoved = 0, namesDisplaced = 0, namesRefused = 0;
    std::uint64_t foundByBeacon = 0, foundByAnswer = 0, confirmed = 0, inVain = 0, heardAllTheTime = 0;
    std::uint64_t steps = 0, digest = 0;
};

Counts operator+(const Counts& a, const Counts& b);
std::string text(const Counts& counts);

} // namespace simulation
