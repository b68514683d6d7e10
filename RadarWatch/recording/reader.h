/// @file
/// Reads recordings: this library's, and those of other programs, pcap and pcapng.
#pragma once

#include <RadarWatch/recording/blocks.h>
#include <RadarWatch/recording/packet.h>
#include <RadarWatch/recording/pcapng.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct pcap; // libpcap's

namespace radar::recording {

/// The UDP datagrams over IPv4 of a file, in the order in which they stand in it. One thread at a time.
class Reader {
public:
    /// What is left out.
    struct Counts {
        std::uint64_t packets = 0; ///< read so far, of any kind
        std::uint64_t fragments = 0;
        std::uint64_t cut = 0; ///< not recorded whole
        std::uint64_t other = 0;
    };

    /// @throws std::system_error where the file cannot be opened; BrokenFile for what is no recording, or has
    ///         frames of a kind that is not known
    explicit Reader(const std::string& path);

    /// Its payload is valid until the next call. Nothing at the end. @throws BrokenFile
    std::optional<Datagram> next();
    const Counts& counts() const { return m_counts; }

private:
    struct Close {
        void operator()(pcap* file) const;
    };
    const std::string m_path;
    std::unique_ptr<pcap, Close> m_file;
    Link m_link{};
    FileClock m_clock;
    Counts m_counts;
};

/// What a pcapng file says beside its packets; empty for other files, and as far as a broken one goes.
/// @throws std::system_error
Notes readNotes(const std::string& path);

} // namespace radar::recording
