/// @file
/// What support needs of a computer, in one file.
#pragma once

#include "observation.h"

#include <RadarWatch/recording/recorder.h>

#include <memory>
#include <string>

namespace doctor {

/// Records what is said on the protocols' groups while doctor looks; write() makes a file of that and of what
/// doctor saw.
class Bundle {
public:
    /// @param redact replaces addresses and names
    /// @throws std::system_error
    Bundle(const std::string& path, bool redact);
    ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    /// What it will hold, for the person whose computer it is.
    std::string list() const;

    /// Writes a gzipped tar archive, whole or not at all.
    /// @param findings as text and as JSON
    /// @throws std::system_error, std::runtime_error
    void write(const Observation& seen, const std::string& findings, const std::string& json);

private:
    class Archive;
    std::string recorded(class Redaction& redaction);

    std::unique_ptr<Archive> m_archive; // first: where it cannot be made, nothing is looked at
    const bool m_redact;
    net::detail::Descriptor m_memory; // the recording's file
    std::unique_ptr<radar::recording::Recorder> m_recorder;
};

} // namespace doctor
