/// @file
/// What must hold of a display's radar table, by the announcements that reached it and its queries.
#pragma once

#include "lan.h"

#include <UdpSocket/protocol/radar_table.h>

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
              const protocol::RadarTable::Update& update, const protocol::RadarTable& table);
    /// After a query at @p second.
    void queried(std::int64_t second, const std::vector<protocol::RadarTable::Removal>& removals,
                 const protocol::RadarTable& table);
    void forgetAll();

private:
    struct Known {
        std::uint32_t source;
        std::int64_t heard;
        std::uint64_t entered;
    };
    using Listed = std::map<std::string, Known, std::less<>>;

    void remove(Listed::iterator entry);
    /// @return whether the newcomer is listed
    bool makesRoom(std::uint32_t source, const protocol::RadarTable::Update& update);

    Lan& m_lan;
    Listed m_listed;
    std::map<std::uint32_t, std::size_t> m_namesOf; // by source
    std::uint64_t m_entries = 0;
};

} // namespace simulation
