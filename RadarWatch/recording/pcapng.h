/// @file
/// The blocks of a pcapng file: composed, and read back as far as libpcap does not tell of them. Pure: no
/// file.
///
/// Every interface has the link type of plain IP packets and times in nanoseconds. Bytes of TCP connections,
/// which have lost their segments, stand in blocks of a type for local use, which other programs skip.
#pragma once

#include <RadarWatch/recording/packet.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace radar::recording {

/// What became of the datagrams of an interface.
struct Statistics {
    std::uint64_t arrived = 0; ///< as far as is known, those dropped included
    std::uint64_t dropped = 0; ///< by the system for want of room in a socket, and for want of room here
    std::uint64_t droppedBySystem = 0; ///< of these
};

std::string sectionBlock(std::string_view application);
std::string interfaceBlock(std::string_view name);
/// @param comment empty: none
void appendDatagramBlock(std::string& blocks, std::uint32_t interface, const Datagram& datagram,
                         std::string_view comment);
void appendStatisticsBlock(std::string& blocks, std::uint32_t interface, Time time,
                           const Statistics& statistics, std::string_view comment);
/// Bytes that came on a TCP connection from @p source, at their time.
void appendTcpBlock(std::string& blocks, const Datagram& bytes);

/// How many of @p bytes are whole blocks.
std::size_t wholeBlocks(std::string_view bytes);

/// Whether a block begins a file of this machine's byte order.
bool isSection(std::string_view block);

/// What the packets of an interface are.
struct Frames {
    std::optional<Link> link;        ///< none: of a kind that is not read
    std::uint64_t ticks = 1'000'000; ///< of its times, a second
};

/// Takes a whole block. @param interfaces those of the blocks before, to which this may add one
/// @return the datagram of a packet, as long as the block; nothing where it is none
std::optional<Datagram> takeDatagram(std::vector<Frames>& interfaces, std::string_view block);

/// What a file says beside its packets.
struct Notes {
    struct Comment {
        Time time; ///< of the packet or statistics that it belongs to
        std::string text;
    };
    struct TcpBytes {
        std::uint64_t pieces = 0;
        std::uint64_t bytes = 0;
    };
    std::vector<std::string> interfaces;                             ///< names
    std::vector<Comment> comments;                                   ///< kMaxComments of them
    std::map<std::uint32_t, Statistics> statistics;                  ///< the last of each interface
    std::map<std::pair<std::uint32_t, std::uint16_t>, TcpBytes> tcp; ///< by the peer's endpoint

    static constexpr std::size_t kMaxComments = 10000;

    // Of what was taken so far.
    std::vector<Frames> frames{}; ///< of the section's interfaces
    FileClock clock{};
};

/// Takes the first block of @p bytes. @return its length; 0: there is no whole block, or none of this
/// machine's byte order
std::size_t takeBlock(Notes& notes, std::string_view bytes);

} // namespace radar::recording
