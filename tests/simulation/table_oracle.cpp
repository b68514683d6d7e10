#include "table_oracle.h"

#include <algorithm>

namespace simulation {

namespace {

using Change = protocol::RadarTable::Change;

constexpr std::int64_t kSilence = 8; // seconds
constexpr std::size_t kMaxNames = 4096;
constexpr std::size_t kProtected = 8; // names of a source

} // namespace

TableOracle::Known& TableOracle::known(NameId name) {
    if (name >= m_known.size())
        m_known.resize(name + 1);
    return m_known[name];
}

void TableOracle::list(NameId name, std::uint32_t source) {
    known(name) = {true, 0, source, m_entries++};
    m_listed.push_back(name);
    ++m_namesOf[source];
    ++m_counts.namesListed;
}

void TableOracle::unlist(NameId name) {
    m_known[name].listed = false;
    m_listed.erase(std::ranges::find(m_listed, name));
    if (--m_namesOf[m_known[name].source] == 0)
        m_namesOf.erase(m_known[name].source);
}

void TableOracle::forgetAll() {
    m_known.clear();
    m_listed.clear();
    m_namesOf.clear();
}

void TableOracle::took(NameId name, const Datagram& datagram, std::int64_t second,
                       const protocol::RadarTable::Update& update, const protocol::RadarTable& table) {
    if (known(name).listed) {
        require(update.change == Change::Updated, "a listed name that is heard is updated");
        Known& entry = known(name);
        if (entry.source != datagram.source) {
            if (--m_namesOf[entry.source] == 0)
                m_namesOf.erase(entry.source);
            ++m_namesOf[entry.source = datagram.source];
        }
    } else if (m_listed.size() < kMaxNames) {
        require(update.change == Change::Added && update.displaced.empty(), "a name that is heard is listed");
        list(name, datagram.source);
    } else {
        tookWhenFull(name, datagram.source, update);
    }
    require(table.entries().size() == m_listed.size(), "the table holds what was heard, 4096 names at most");
    const protocol::RadarTable::Entry* const entry = table.find(m_lan.nameText(name));
    if (!known(name).listed) {
        require(entry == nullptr, "a refused name is not listed");
        return;
    }
    known(name).heard = second;
    require(entry != nullptr, "a name that is heard is listed");
    require(entry->lastSeen == second, "a listed name carries the moment of its last announcement");
    require(entry->source == datagram.source, "a listed name carries the source of its last announcement");
    require(name == datagram.tcpName || entry->record.arpaStream.port == datagram.arpaPort,
            "a listed name carries the endpoints of its last announcement");
}

void TableOracle::tookWhenFull(NameId name, std::uint32_t source,
                               const protocol::RadarTable::Update& update) {
    std::size_t most = 0;
    for (const auto& [holder, count] : m_namesOf)
        most = std::max(most, count);
    const auto own = m_namesOf.find(source);
    const std::size_t ownAfterwards = 1 + (own == m_namesOf.end() ? 0 : own->second);
    if (most <= kProtected) {
        require(update.change == Change::Refused, "a source with 8 names or fewer gives up none");
    } else if (ownAfterwards >= most - 1) {
        require(update.change == Change::Refused, "a full table refuses who would have as many as another");
    } else {
        require(update.change == Change::Added, "a full table makes room for who has few names");
        const NameId displaced = m_lan.findName(update.displaced);
        require(displaced != kNoName && known(displaced).listed, "who gives way was listed");
        const Known gone = known(displaced);
        require(m_namesOf[gone.source] == most, "the source with the most names gives one up");
        require(std::ranges::none_of(m_listed,
                                     [&](NameId other) {
                                         return m_known[other].source == gone.source &&
                                                m_known[other].entered > gone.entered;
                                     }),
                "the name that entered last gives way");
        unlist(displaced);
        list(name, source);
        ++m_counts.namesDisplaced;
        return;
    }
    ++m_counts.namesRefused;
}

void TableOracle::queried(std::int64_t second, const std::vector<protocol::RadarTable::Removal>& removals,
                          const protocol::RadarTable& table) {
    for (const auto& [name, lastSeen] : removals) {
        const NameId id = m_lan.findName(name);
        require(id != kNoName && known(id).listed, "only listed names are removed");
        require(second - known(id).heard >= kSilence, "no name is removed before 8 seconds of silence");
        require(lastSeen == known(id).heard, "a removal tells when the name was heard last");
        unlist(id);
        ++m_counts.namesRemoved;
    }
    for (const NameId name : m_listed)
        require(second - m_known[name].heard < kSilence, "a name silent for 8 seconds is removed by a query");
    require(table.entries().size() == m_listed.size(), "a query removes silent names alone");
    if (m_queries++ % 10 == 0)
        for (const NameId name : m_listed)
            require(table.find(m_lan.nameText(name)) != nullptr, "a name that is heard stays listed");
}

} // namespace simulation
