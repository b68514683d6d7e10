/// @file
/// What the numbers in a stream's datagrams say about loss.
#pragma once

#include <RadarWatch/radarstream.h>

#include <cstddef>
#include <cstdint>

namespace radar::detail {

/// Counts what is missing, repeated and reordered. A number that lies further back than kWindow means that
/// the sender has begun again.
class SequenceCounter {
public:
    static constexpr std::uint64_t kWindow = 64;

    explicit SequenceCounter(const StreamOptions::Sequence& place);

    /// The next datagram; one too short to have a number is not counted.
    void count(const char* data, std::size_t size);

    std::uint64_t missing() const { return m_missing; }
    std::uint64_t repeated() const { return m_repeated; }
    std::uint64_t reordered() const { return m_reordered; }

private:
    std::uint64_t numberIn(const char* data) const;
    void restart(std::uint64_t number);

    const StreamOptions::Sequence m_place;
    const std::uint64_t m_last; // the number that 0 follows
    bool m_begun = false;
    std::uint64_t m_highest = 0;
    std::uint64_t m_seen = 0; // bit n: m_highest - n has come, or came before we counted
    std::uint64_t m_missing = 0;
    std::uint64_t m_repeated = 0;
    std::uint64_t m_reordered = 0;
};

} // namespace radar::detail
