/// @file
/// What the system tells in files.
#pragma once

#include <string>

namespace radar::detail {

/// The text of a file in /proc; empty when there is none.
std::string readSystemFile(const char* path);

} // namespace radar::detail
