/// @file
/// Radars as text for people.
#pragma once

#include "display.h"

#include <string>
#include <vector>

/// @p bytes as a terminal may show it: what is not printable comes as \xNN, so that a name can neither draw
/// on the terminal nor forge a line.
std::string printable(const std::string& bytes);

/// "236.6.7.8:6678"
std::string endpointText(const NetAddress& endpoint);

/// Id, streams and endpoints on one line.
std::string summary(const Radar& radar);

/// A heading, and three lines for each radar, without line ends; at most 80 columns wide for names of up
/// to 21.
std::vector<std::string> table(const std::vector<Radar>& radars);
