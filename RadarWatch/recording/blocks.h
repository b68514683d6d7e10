/// @file
/// Reads pcapng files block by block.
#pragma once

#include <RadarWatch/recording/pcapng.h>

#include <UdpSocket/base/descriptor.h>

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace radar::recording {

/// A file that cannot be read, or not to its end; what() is one line with its path and the position.
struct BrokenFile : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

/// @throws std::system_error
File openFile(const std::string& path);

/// The blocks of a pcapng file of this machine's byte order. One thread at a time.
class Blocks {
public:
    /// @throws std::system_error, BrokenFile for what does not begin as such a file does
    explicit Blocks(const std::string& path);

    /// The next one, valid until the next call; empty at the end. @throws BrokenFile
    std::string_view next();

    /// The datagram of the next packet that has one, valid as next() says; nothing at the end.
    /// @throws BrokenFile
    std::optional<Datagram> nextDatagram();

    /// Why the last reading failed, an errno; 0: it did not, and a file that is broken is so on the disk.
    int error() const { return m_error; }

private:
    std::size_t read(char* bytes, std::size_t count);

    const std::string m_path;
    const net::detail::Descriptor m_file;
    const std::unique_ptr<char[]> m_buffer;
    std::string_view m_ahead; // what is in it and not taken
    off_t m_readTo = 0;
    int m_error = 0;
    std::uint64_t m_position = 0; // of the next block
    std::vector<char> m_block;
    std::vector<Frames> m_interfaces;
    FileClock m_clock;
};

} // namespace radar::recording
