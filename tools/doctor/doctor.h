/// @file
/// Why no radar is seen, found by looking.
#pragma once

#include "../loop.h"

#include <optional>
#include <string>

namespace doctor {

/// A look of at most two seconds, without privileges, at why no radar was found.
/// @param interface look at this interface alone; empty: at all
/// @return the most likely cause with its remedy, in one line; nothing where none shows, or the user stopped
/// it
std::optional<std::string> likelyCause(const std::string& interface, Loop& loop);

} // namespace doctor
