/// @file
/// Which radars came, changed and left.
#pragma once

#include "display.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

/// What is known of a radar since it was seen first, also a while after it left.
struct Sighting {
    Radar radar; ///< as it was seen last
    std::chrono::system_clock::time_point first;
    std::chrono::system_clock::time_point last; ///< of its last announcement
    std::string whyLeft{};                      ///< empty while it is there
    std::chrono::system_clock::time_point left{};
};

struct Event {
    enum class Kind { Appeared, Changed, Left };
    Kind kind;
    Sighting sighting;
};

class History {
public:
    /// @param localIp network order, for the reason why a radar left
    /// @return what happened since the last call
    std::vector<Event> update(const std::vector<Radar>& radars, unsigned int localIp);

    /// By name; radars that left are kept for a minute.
    const std::map<std::string, Sighting>& sightings() const { return m_sightings; }

private:
    std::map<std::string, Sighting> m_sightings;
};
