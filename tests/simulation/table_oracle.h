/// @file
/// What must hold of a display's radar table, by the announcements that reached it and its queries.
#pragma once

#include "lan.h"

#include <UdpSocket/protocol/radar_table.h>

#include <algorithm>

namespace simulation {

/// Properties: a name that is heard is listed, as announced last. One that was not heard for 8 seconds of the
/// display's clock is gone after the next query, and no other. There are 4096 names at most; where they are
/// that many, a newcomer takes the place of the name that the source with the most names brought last, if its
/// source has fewer all the same and that source more than 8; otherwise it is refused.
class TableOracle {
public:
    explicit TableOracle(Lan& lan) : m_lan(lan) {}

    /// After @p table took the record that @p datagram announces under @p name.
    void took(const std::string& name, const Datagram& datagram, std::int64_t second,
              const protocol::RadarTable::Update& update, const protocol::RadarTable& table) {
        auto known = m_listed.find(name);
        bool listed = true;
        if (known != m_listed.end()) {
            require(update.change == Change::Updated, "a listed name that is heard is updated");
        } else if (m_listed.size() < kMaxNames) {
            require(update.change == Change::Added && update.displaced.empty(),
                    "a name that is heard is listed");
        } else {
            listed = makesRoom(datagram.source, update);
        }
        const protocol::RadarTable::Entry* const entry = table.find(name);
        require(listed == (entry != nullptr), "a name that is heard is listed, unless it was refused");
        if (listed) {
            if (known == m_listed.end()) {
                known = m_listed.try_emplace(name, Known{0, 0, m_entries++}).first;
                ++m_lan.counts["names listed"];
            } else {
                --m_namesOf[known->second.source];
            }
            ++m_namesOf[known->second.source = datagram.source];
            known->second.heard = second;
            require(entry->lastSeen == second, "a listed name carries the moment of its last announcement");
            require(entry->source == datagram.source,
                    "a listed name carries the source of its last announcement");
            require(name == datagram.tcpName || entry->record.arpaStream.port == datagram.arpaPort,
                    "a listed name carries the endpoints of its last announcement");
        }
        require(table.entries().size() == m_listed.size(),
                "the table holds what was heard, 4096 names at most");
    }

    /// After a query at @p second.
    void queried(std::int64_t second, const std::vector<protocol::RadarTable::Removal>& removals,
                 const protocol::RadarTable& table) {
        for (const auto& [name, lastSeen] : removals) {
            const auto gone = m_listed.find(name);
            require(gone != m_listed.end(), "only listed names are removed");
            require(second - gone->second.heard >= kSilence,
                    "no name is removed before 8 seconds of silence");
            require(lastSeen == gone->second.heard, "a removal tells when the name was heard last");
            remove(gone);
            ++m_lan.counts["names removed"];
        }
        std::erase_if(m_namesOf, [](const auto& entry) { return entry.second == 0; });
        for (const auto& [name, known] : m_listed)
            require(second - known.heard < kSilence, "a name silent for 8 seconds is removed by a query");
        const auto name = [](const auto& entry) -> const std::string& { return entry.first; };
        require(std::ranges::equal(m_listed, table.entries(), {}, name, name),
                "a query removes silent names alone");
    }

    void forgetAll() {
        m_listed.clear();
        m_namesOf.clear();
    }

private:
    struct Known {
        std::uint32_t source;
        std::int64_t heard;
        std::uint64_t entered;
    };
    using Listed = std::map<std::string, Known, std::less<>>;
    using Change = protocol::RadarTable::Change;

    static constexpr std::int64_t kSilence = 8; // seconds
    static constexpr std::size_t kMaxNames = 4096;
    static constexpr std::size_t kProtected = 8; // names of a source

    /// @return whether the newcomer is listed
    bool makesRoom(std::uint32_t source, const protocol::RadarTable::Update& update) {
        const auto count = [](const auto& entry) { return entry.second; };
        const std::size_t most = std::ranges::max_element(m_namesOf, {}, count)->second;
        if (most <= kProtected) {
            require(update.change == Change::Refused, "a source with 8 names or fewer gives up none");
        } else if (m_namesOf[source] + 1 >= most - 1) {
            require(update.change == Change::Refused,
                    "a full table refuses who would have as many as another");
        } else {
            require(update.change == Change::Added, "a full table makes room for who has few names");
            const auto gone = m_listed.find(update.displaced);
            require(gone != m_listed.end(), "who gives way was listed");
            require(m_namesOf[gone->second.source] == most, "the source with the most names gives one up");
            require(std::ranges::none_of(m_listed,
                                         [&](const auto& other) {
                                             return other.second.source == gone->second.source &&
                                                    other.second.entered > gone->second.entered;
                                         }),
                    "the name that entered last gives way");
            remove(gone);
            ++m_lan.counts["names displaced"];
            return true;
        }
        ++m_lan.counts["names refused"];
        return false;
    }
    void remove(Listed::iterator entry) {
        --m_namesOf[entry->second.source];
        m_listed.erase(entry);
    }

    Lan& m_lan;
    Listed m_listed;
    std::map<std::uint32_t, std::size_t> m_namesOf; // by source
    std::uint64_t m_entries = 0;
};

} // namespace simulation
