/// @file
/// The host id with which a radar host begins to negotiate.
#pragma once

#include "loop.h"

#include <cstdint>

/// Asks the radars on the network to announce themselves, and listens for half a second. Says on standard
/// error who has the id that is wanted.
/// @param wanted 0: any from 16 to 63 that nobody announces
/// @return 0: stopped meanwhile
std::uint8_t proposedId(int wanted, Loop& loop);
