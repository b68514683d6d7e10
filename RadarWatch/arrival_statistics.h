/// @file
/// How many datagrams come, how fast, and how evenly.
#pragma once

#include <RadarWatch/radarstream.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace radar::detail {

using Steady = std::chrono::steady_clock;

class ArrivalStatistics {
public:
    /// @param arrival not before that of the previous datagram
    void count(Steady::time_point arrival, std::size_t bytes);

    std::uint64_t datagrams() const { return m_datagrams; }
    Steady::time_point last() const { return m_last; } ///< of the last datagram, if there was one
    /// The longest gap that has ended since the last call.
    std::chrono::nanoseconds takeLongestGap();

    void write(Statistics& statistics, Steady::time_point now) const;

private:
    using Slot = std::int64_t; // number of a span of kSlot
    static constexpr std::chrono::milliseconds kSlot{100};
    static constexpr Slot kSlotsASecond = 10;
    static constexpr std::size_t kSlots =
        10 * kSlotsASecond + 1; // ten whole seconds, and the slot being filled

    struct Counted {
        std::uint64_t datagrams = 0;
        std::uint64_t bytes = 0;
    };

    static Slot slotAt(Steady::time_point time) { return time.time_since_epoch() / kSlot; }
    Statistics::Rate rate(Slot now, Slot slots) const;
    std::chrono::nanoseconds percentile(unsigned percent) const;

    std::uint64_t m_datagrams = 0;
    std::uint64_t m_bytes = 0;
    Steady::time_point m_last;
    std::chrono::nanoseconds m_longestGap{0};
    std::chrono::nanoseconds m_longestSinceTaken{0};
    std::array<std::uint64_t, 30 * 8> m_gaps{}; // by length, see bucketOf

    Slot m_firstSlot = 0;
    Slot m_slot = 0; // of the last datagram
    Steady::time_point m_slotEnd;
    std::array<Counted, kSlots> m_slots{}; // by number modulo kSlots
};

} // namespace radar::detail
