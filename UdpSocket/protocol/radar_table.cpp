#include <UdpSocket/protocol/radar_table.h>

#include <algorithm>
#include <iterator>

namespace protocol {

RadarTable::Update RadarTable::update(std::string_view name, const RadarAddress& record, std::uint32_t source,
                                      Seconds now) {
    if (const auto found = m_entries.find(name); found != m_entries.end()) {
        Entry& entry = found->second;
        if (entry.source != source) {
            attach(found, source);
            detach(found, std::exchange(entry.source, source));
        }
        entry.record = record;
        entry.lastSeen = now;
        return {Change::Updated, {}};
    }
    const bool full = m_entries.size() >= kMaxNames;
    const auto victim = full ? victimFor(source) : m_entries.end();
    if (full && victim == m_entries.end())
        return {Change::Refused, {}};
    add(name, {record, now, source, m_sequence});
    ++m_sequence;
    return {Change::Added, full ? remove(victim) : std::string()};
}

std::vector<RadarTable::Removal> RadarTable::expire(Seconds now) {
    const auto silent = [now](const auto& entry) { return now - entry.second.lastSeen >= kSilence; };
    std::vector<Removal> removals;
    removals.reserve(static_cast<std::size_t>(std::ranges::count_if(m_entries, silent)));
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        const auto current = entry++;
        if (!silent(*current))
            continue;
        const Seconds lastSeen = current->second.lastSeen;
        removals.push_back({remove(current), lastSeen});
    }
    return removals;
}

const RadarTable::Entry* RadarTable::find(std::string_view name) const {
    const auto found = m_entries.find(name);
    return found == m_entries.end() ? nullptr : &found->second;
}

RadarTable::Entries::iterator RadarTable::victimFor(std::uint32_t source) {
    const auto [mostNames, largest] = *m_sourcesByCount.rbegin();
    const auto own = m_sources.find(source);
    const std::size_t ownNames = own == m_sources.end() ? 0 : own->second.size();
    if (mostNames <= kProtectedNames || ownNames + 1 >= mostNames - 1)
        return m_entries.end();
    return std::prev(m_sources.find(largest)->second.end())->second;
}

void RadarTable::add(std::string_view name, const Entry& entry) {
    const auto added = m_entries.try_emplace(std::string(name), entry).first;
    try {
        attach(added, entry.source);
    } catch (...) {
        m_entries.erase(added);
        throw;
    }
}

std::string RadarTable::remove(Entries::iterator entry) noexcept {
    detach(entry, entry->second.source);
    return std::move(m_entries.extract(entry).key());
}

void RadarTable::attach(Entries::iterator entry, std::uint32_t source) {
    const auto [owner, first] = m_sources.try_emplace(source);
    Names& names = owner->second;
    try {
        names.emplace(entry->second.sequence, entry);
        if (first)
            m_sourcesByCount.emplace(1, source);
        else
            recount(source, names.size() - 1, names.size());
    } catch (...) {
        if (first)
            m_sources.erase(owner);
        throw;
    }
}

void RadarTable::detach(Entries::iterator entry, std::uint32_t source) noexcept {
    const auto owner = m_sources.find(source);
    Names& names = owner->second;
    names.erase(entry->second.sequence);
    if (!names.empty()) {
        recount(source, names.size() + 1, names.size());
        return;
    }
    m_sourcesByCount.erase({1, source});
    m_sources.erase(owner);
}

void RadarTable::recount(std::uint32_t source, std::size_t before, std::size_t after) noexcept {
    auto count = m_sourcesByCount.extract({before, source});
    count.value().first = after;
    m_sourcesByCount.insert(std::move(count));
}

} // namespace protocol
