#include <RadarWatch/sequence_counter.h>

#include <algorithm>

namespace radar::detail {

namespace {

constexpr std::size_t kWidest = 8; // bytes

StreamOptions::Sequence valid(StreamOptions::Sequence place) {
    place.width = std::clamp<std::size_t>(place.width, 1, kWidest);
    return place;
}

std::uint64_t lastNumber(const StreamOptions::Sequence& place) {
    const std::uint64_t lastOfWidth = ~std::uint64_t{0} >> 8 * (kWidest - place.width);
    return place.modulus == 0 ? lastOfWidth : std::min(place.modulus - 1, lastOfWidth);
}

} // namespace

SequenceCounter::SequenceCounter(const StreamOptions::Sequence& place)
    : m_place(valid(place)), m_last(lastNumber(m_place)) {}

std::uint64_t SequenceCounter::numberIn(const char* data) const {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < m_place.width; ++i) {
        const std::size_t at = m_place.bigEndian ? i : m_place.width - 1 - i;
        number = number << 8 | static_cast<unsigned char>(data[m_place.offset + at]);
    }
    return number;
}

void SequenceCounter::restart(std::uint64_t number) {
    m_begun = true;
    m_highest = number;
    m_seen = ~std::uint64_t{0};
}

void SequenceCounter::count(const char* data, std::size_t size) {
    if (size < m_place.width || size - m_place.width < m_place.offset)
        return;
    const std::uint64_t number = numberIn(data);
    if (number > m_last)
        return;
    if (!m_begun) {
        restart(number);
        return;
    }
    // Both modulo m_last + 1, which may be 2^64.
    const std::uint64_t ahead = number >= m_highest ? number - m_highest : number + (m_last - m_highest) + 1;
    const std::uint64_t behind = ahead == 0 ? 0 : m_last - ahead + 1;
    if (ahead != 0 && ahead <= m_last / 2) {
        m_missing += ahead - 1;
        m_seen = (ahead < kWindow ? m_seen << ahead : 0) | 1;
        m_highest = number;
    } else if (behind >= kWindow) {
        restart(number);
    } else if ((m_seen >> behind & 1) != 0) {
        ++m_repeated;
    } else {
        m_seen |= std::uint64_t{1} << behind;
        ++m_reordered;
        --m_missing;
    }
}

} // namespace radar::detail
