/// @file
/// Radars as text for people.
#pragma once

#include "display.h"
#include "endpoints.h"

#include <string>
#include <vector>

/// @p bytes as a terminal may show it: what is not printable comes as \xNN, so that a name can neither draw
/// on the terminal nor forge a line.
std::string printable(const std::string& bytes);

/// Printable text, filled with blanks to that many columns, and at least one blank.
std::string padded(const std::string& text, int columns);

/// Seconds with one decimal: "0.3 s ago", or "-".
std::string ageText(const std::optional<std::chrono::milliseconds>& age);

/// Host id, or "-".
std::string hostIdText(int hostId);

/// Name, id, streams and interface; continued by what the caller adds. Columns as in kTableHeading.
std::string tableLine(const Radar& radar, const std::string& interface);
extern const std::string kTableHeading;

/// Two lines for each stream: image and ARPA endpoints. At most 80 columns.
std::vector<std::string> endpointLines(const Radar& radar);

/// Id, streams and endpoints on one line.
std::string summary(const Radar& radar);
