#include <RadarWatch/arrival_statistics.h>

#include <algorithm>
#include <bit>
#include <utility>

namespace radar::detail {

namespace {

using std::chrono::nanoseconds;

// Gaps fall into buckets of eight to an octave: exact in units of 256 ns up to the eighth, then an eighth of
// the octave wide, up to 2^40 ns, eighteen minutes.
constexpr unsigned kUnitBits = 8;
constexpr unsigned kSubBits = 3;
constexpr std::uint64_t kLongest = (std::uint64_t{1} << 32) - 1; // units

std::size_t bucketOf(nanoseconds gap) {
    const auto units =
        static_cast<std::size_t>(std::min(static_cast<std::uint64_t>(gap.count()) >> kUnitBits, kLongest));
    if (units < 1U << kSubBits)
        return units;
    const auto octave = static_cast<unsigned>(std::bit_width(units)) - kSubBits - 1;
    return (octave + 1) * (1U << kSubBits) + (units >> octave & ((1U << kSubBits) - 1));
}

/// The middle of a bucket.
nanoseconds gapOf(std::size_t bucket) {
    std::uint64_t twice = 2 * bucket + 1; // units
    if (bucket >= 1U << kSubBits) {
        const std::size_t octave = (bucket >> kSubBits) - 1;
        const std::uint64_t middle = 2 * ((bucket & ((1U << kSubBits) - 1)) + (1U << kSubBits)) + 1;
        twice = middle << octave; // too long for the size of 32 bits
    }
    return nanoseconds(twice << (kUnitBits - 1));
}

} // namespace

void ArrivalStatistics::count(Steady::time_point arrival, std::size_t bytes) {
    if (m_datagrams == 0) {
        m_firstSlot = m_slot = slotAt(arrival);
    } else {
        const nanoseconds gap = arrival - m_last;
        m_longestGap = std::max(m_longestGap, gap);
        m_longestSinceTaken = std::max(m_longestSinceTaken, gap);
        ++m_gaps[bucketOf(gap)];
    }
    m_last = arrival;
    if (arrival >= m_slotEnd) {
        const Slot slot = slotAt(arrival);
        for (Slot empty = std::max(m_slot + 1, slot - static_cast<Slot>(kSlots) + 1); empty <= slot; ++empty)
            m_slots[static_cast<std::size_t>(empty) % kSlots] = {};
        m_slot = slot;
        m_slotEnd = Steady::time_point(kSlot * (slot + 1));
    }
    ++m_datagrams;
    m_bytes += bytes;
    Counted& counted = m_slots[static_cast<std::size_t>(m_slot) % kSlots];
    ++counted.datagrams;
    counted.bytes += bytes;
}

nanoseconds ArrivalStatistics::takeLongestGap() {
    return std::exchange(m_longestSinceTaken, nanoseconds(0));
}

/// Over whole slots before @p now.
Statistics::Rate ArrivalStatistics::rate(Slot now, Slot slots) const {
    const Slot first = std::max({now - slots, m_firstSlot, m_slot - static_cast<Slot>(kSlots) + 1});
    Counted sum;
    for (Slot slot = first; slot < now && slot <= m_slot; ++slot) {
        const Counted& counted = m_slots[static_cast<std::size_t>(slot) % kSlots];
        sum.datagrams += counted.datagrams;
        sum.bytes += counted.bytes;
    }
    const double seconds = static_cast<double>(std::clamp<Slot>(now - m_firstSlot, 1, slots)) /
                           static_cast<double>(kSlotsASecond);
    return {static_cast<double>(sum.datagrams) / seconds, static_cast<double>(sum.bytes) / seconds};
}

nanoseconds ArrivalStatistics::percentile(unsigned percent) const {
    const std::uint64_t gaps = m_datagrams - 1;
    std::uint64_t below = 0;
    for (std::size_t bucket = 0; bucket < m_gaps.size(); ++bucket) {
        below += m_gaps[bucket];
        if (below * 100 >= gaps * percent)
            return std::min(gapOf(bucket), m_longestGap);
    }
    return m_longestGap;
}

void ArrivalStatistics::write(Statistics& statistics, Steady::time_point now) const {
    statistics.datagrams = m_datagrams;
    statistics.bytes = m_bytes;
    if (m_datagrams == 0)
        return;
    statistics.lastSecond = rate(slotAt(now), kSlotsASecond);
    statistics.lastTenSeconds = rate(slotAt(now), 10 * kSlotsASecond);
    statistics.longestGap = m_longestGap;
    statistics.sinceLast = std::max<nanoseconds>(now - m_last, nanoseconds(0));
    if (m_datagrams == 1)
        return;
    statistics.medianGap = percentile(50);
    statistics.gap99 = percentile(99);
}

} // namespace radar::detail
