/// @file
/// Radars as displays list them.
#pragma once

#include <RadarWatch/radarwatch.h>

#include <map>
#include <set>
#include <string>
#include <vector>

/// The entries under which a radar is listed: NAME or, with endpoints that its user chose, NAME:User, and
/// NAME:TCP for its TCP service. Each has its own name, host id and streams, and neither variant.
std::vector<radar::Radar> entriesOf(const radar::Radar& radar);
/// Those of all radars, in order of their names.
std::vector<radar::Radar> entriesOf(const std::vector<radar::Radar>& radars);

/// Host ids that several radars announce, with the radars' names.
using SharedIds = std::map<int, std::set<std::string>>;
SharedIds sharedIds(const std::vector<radar::Radar>& entries);
