/// @file
/// A radar's image that comes while doctor looks, or does not.
#pragma once

#include "observation.h"

#include <RadarWatch/radarstream.h>
#include <RadarWatch/radarwatch.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

namespace doctor {

/// Receives the image of a radar's first stream, wherever it goes, on a thread of the stream's own.
class FollowedImage {
public:
    /// @param radar its entry's name, as it is or as printable() shows it
    /// @param localIp 0: as profile.ini says, or a search @throws std::system_error, std::bad_alloc
    FollowedImage(const std::string& radar, unsigned int localIp);

    /// Begins once the radar is there. To be called again and again.
    void look();
    /// What has come so far.
    ImageSeen seen() const;

private:
    void take(const radar::StreamEvent& event);

    mutable std::mutex m_mutex; // guards m_seen
    ImageSeen m_seen;
    radar::Watch m_watch;
    std::chrono::steady_clock::time_point m_found;
    std::optional<radar::Stream> m_stream; // last: it calls this object
};

} // namespace doctor
