/// @file
/// A recording that was looked through, for those who show or replay it.
#pragma once

#include <RadarWatch/recording/contents.h>
#include <RadarWatch/recording/reader.h>

#include <string>

struct Recorded {
    radar::recording::Contents contents;
    radar::recording::Reader::Counts counts;
    radar::recording::Notes notes;
    std::string broken; ///< why it was not read to its end; empty: it was
};

/// @throws Failure where there is no file, or no datagram in it; std::system_error where it cannot be opened
Recorded lookThrough(const std::string& path);

/// What was left out, in words; empty: nothing.
std::string leftOut(const radar::recording::Reader::Counts& counts);

/// UTC, as RFC 3339 has it, with milliseconds.
std::string timeText(radar::recording::Time time);
