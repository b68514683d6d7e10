/// @file
/// Settings for a radar host and a display on one computer.
#pragma once

#include <string>

/// From here on the process reads its profile.ini with [Local] MulticastLoop = true: from a copy, in a
/// directory that lives as long as the object. Make it before a thread is started: it changes the
/// environment.
class LoopingProfile {
public:
    /// @throws std::system_error when there is no room for the copy
    LoopingProfile();
    ~LoopingProfile();
    LoopingProfile(const LoopingProfile&) = delete;
    LoopingProfile& operator=(const LoopingProfile&) = delete;

private:
    std::string m_directory;
};
