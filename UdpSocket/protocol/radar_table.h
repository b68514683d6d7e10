/// @file
/// The radars that a display lists, by name.
#pragma once

#include <UdpSocket/radaraddress.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace protocol {

/// Which names are listed, since when they are silent, and who gives way when the table is full. One thread
/// at a time. An update of a listed name by the source of the last one needs no heap.
///
/// Anybody on the LAN can announce names, so the table holds no more than kMaxNames, and a full one is shared
/// out fairly: the source with the most names gives up the one that it brought last, where the newcomer's
/// source still has fewer afterwards. A source with kProtectedNames or fewer gives up none.
///
/// An update or expiry that runs out of memory throws std::bad_alloc and leaves the table as it was.
class RadarTable {
public:
    using Seconds = std::int64_t; ///< of any clock that counts on

    static constexpr Seconds kSilence = 8;         ///< without an announcement, and a name is removed
    static constexpr std::size_t kMaxNames = 4096; ///< the plan has 49 hosts, and a radar three names at most
    static constexpr std::size_t kProtectedNames = 8; ///< of one source: more than any real radar has

    struct Entry {
        RadarAddress record;
        Seconds lastSeen;
        std::uint32_t source;   ///< of the last announcement, network order
        std::uint64_t sequence; ///< counts the names that entered; a name keeps its number
    };

    enum class Change { Added, Updated, Refused };
    struct Update {
        Change change;
        std::string displaced; ///< the name that gave way to the one added; empty: none
    };

    struct Removal {
        std::string name;
        Seconds lastSeen;
    };

    RadarTable() = default;
    RadarTable(const RadarTable&) = delete; // the sources point into the entries
    RadarTable& operator=(const RadarTable&) = delete;

    /// @param source the announcement's, network order
    Update update(std::string_view name, const RadarAddress& record, std::uint32_t source, Seconds now);

    /// Removes every name that has been silent for kSilence at @p now. @return them, in order of the names
    std::vector<Removal> expire(Seconds now);

    /// Null when the name is not listed; valid until the next update or expiry.
    const Entry* find(std::string_view name) const;

    /// In ascending byte order of the names.
    const std::map<std::string, Entry, std::less<>>& entries() const { return m_entries; }

private:
    using Entries = std::map<std::string, Entry, std::less<>>;
    /// The names of one source, by sequence.
    using Names = std::map<std::uint64_t, Entries::iterator>;

    /// The entry that gives way to one of @p source; the end of the table: none does.
    Entries::iterator victimFor(std::uint32_t source);
    void add(std::string_view name, const Entry& entry);
    std::string remove(Entries::iterator entry) noexcept;
    void attach(Entries::iterator entry, std::uint32_t source);
    void detach(Entries::iterator entry, std::uint32_t source) noexcept;
    void recount(std::uint32_t source, std::size_t before, std::size_t after) noexcept;

    Entries m_entries;
    std::unordered_map<std::uint32_t, Names> m_sources; // only those that have names
    std::set<std::pair<std::size_t, std::uint32_t>> m_sourcesByCount;
    std::uint64_t m_sequence = 0;
};

} // namespace protocol
