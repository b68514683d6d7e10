/// @file
/// Lines on standard error about what is wrong with a profile.
#pragma once

#include <string>

namespace iniprofile {

/// Writes @p line, once in the life of the process for one @p subject (profiles are read again and again),
/// and no more than 100 lines in all. Not to be called with a lock held.
void reportOnce(const std::string& line, const std::string& subject);
inline void reportOnce(const std::string& line) {
    reportOnce(line, line);
}

} // namespace iniprofile
