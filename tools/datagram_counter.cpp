#include "datagram_counter.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <vector>

namespace {

constexpr int kLongestDatagram = 65536;

/// The numbers under which /proc/net/udp lists this process's sockets.
std::set<std::string> ownSockets() {
    std::set<std::string> inodes;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const std::string target = std::filesystem::read_symlink(entry.path(), error); // "socket:[4711]"
        if (target.starts_with("socket:["))
            inodes.insert(target.substr(8, target.size() - 9));
    }
    return inodes;
}

} // namespace

DatagramCounter::DatagramCounter(const NetAddress& endpoint, unsigned int localIp)
    : m_endpoint(endpoint), m_receiver(this, localIp, endpoint, kLongestDatagram) {}

void DatagramCounter::OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char*, int, const char*,
                                             int length) {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(m_mutex);
    Second& second = m_current;
    second.smallest = second.datagrams == 0 ? length : std::min(second.smallest, length);
    second.largest = std::max(second.largest, length);
    ++second.datagrams;
    second.bytes += length;
    second.longestGap = std::max<std::chrono::duration<double>>(second.longestGap, now - m_lastDatagram);
    m_lastDatagram = now;
    count(second, std::string(fromIp) + ":" + std::to_string(fromPort), 1);
}

void DatagramCounter::count(Second& second, const std::string& source, long datagrams) {
    if (const auto known = second.sources.find(source); known != second.sources.end())
        known->second += datagrams;
    else if (second.sources.size() < kMaxSources)
        second.sources.emplace(source, datagrams);
    else
        second.hasMoreSources = true;
}

DatagramCounter::Second DatagramCounter::next() {
    const std::optional<long> droppedSoFar = dropped();
    Second second;
    {
        const auto now = std::chrono::steady_clock::now();
        std::lock_guard lock(m_mutex);
        std::swap(second, m_current);
        second.longestGap = std::max<std::chrono::duration<double>>(second.longestGap, now - m_lastDatagram);
        second.duration = now - m_since;
        m_since = now;
    }
    second.dropped.reset();
    if (droppedSoFar) // a receiver that was set up again counts from zero
        second.dropped = *droppedSoFar - (*droppedSoFar < m_droppedBefore ? 0 : m_droppedBefore);
    m_droppedBefore = droppedSoFar.value_or(0);

    if (second.datagrams > 0)
        m_total.smallest =
            m_total.datagrams == 0 ? second.smallest : std::min(m_total.smallest, second.smallest);
    m_total.largest = std::max(m_total.largest, second.largest);
    m_total.duration += second.duration;
    m_total.datagrams += second.datagrams;
    m_total.bytes += second.bytes;
    m_total.longestGap = std::max(m_total.longestGap, second.longestGap);
    m_total.dropped = second.dropped ? m_total.dropped.value_or(0) + *second.dropped : m_total.dropped;
    for (const auto& [source, datagrams] : second.sources)
        count(m_total, source, datagrams);
    m_total.hasMoreSources |= second.hasMoreSources;
    return second;
}

std::optional<long> DatagramCounter::dropped() const {
    char bound[16]; // as /proc/net/udp writes address and port
    std::snprintf(bound, sizeof bound, "%08X:%04X", m_endpoint.ip,
                  static_cast<unsigned int>(net::NtoHs(m_endpoint.port)));
    const std::set<std::string> own = ownSockets();
    std::ifstream table("/proc/self/net/udp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
        constexpr std::size_t kLocal = 1, kInode = 9, kDrops = 12;
        if (fields.size() > kDrops && fields[kLocal] == bound && own.count(fields[kInode]) != 0)
            return std::stol(fields[kDrops]);
    }
    return std::nullopt;
}
