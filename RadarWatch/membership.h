/// @file
/// Memberships of multicast groups that can be renewed where a switch has forgotten them.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>

namespace radar::detail {

/// One socket's membership of a group on one interface, from join() to leave().
///
/// The system tells the LAN of a leave when the last socket of the computer leaves, so all sockets of this
/// process in one group leave together. Any thread.
class Membership {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// @param group, localAddress in network order @return null when the system refuses (errno)
    static std::unique_ptr<Membership> join(const net::detail::Descriptor& socket, std::uint32_t group,
                                            std::uint32_t localAddress, unsigned interfaceIndex);
    ~Membership() { leave(); }
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;

    void leave();

    /// Something has come from the group.
    void noteData(Time arrival) { m_lastData.store(arrival, std::memory_order_relaxed); }

    enum class Renewal {
        Done,         ///< now, or just before by another socket
        DataFlow,     ///< not done: another socket in the group, of another port, has data
        OthersJoined, ///< not done: sockets that are none of ours
        Lost,         ///< left, and could not be joined again
    };
    struct Renewed {
        Renewal renewal;
        unsigned others = 0; ///< OthersJoined: how many
    };
    /// Leaves the group and joins it, which tells every switch.
    Renewed renew(Time now);

private:
    using Key = std::pair<unsigned, std::uint32_t>; // interface and group
    struct Registry;
    static Registry& registry();

    Membership(const net::detail::Descriptor& socket, Key key, std::uint32_t localAddress);
    bool change(int option) const; // IP_ADD_MEMBERSHIP or IP_DROP_MEMBERSHIP

    const net::detail::Descriptor& m_socket;
    const Key m_key;
    const std::uint32_t m_localAddress;
    std::atomic<Time> m_lastData{};
    bool m_joined = false; // guarded by the registry's mutex, as the next
    bool m_lost = false;   // by a renewal
};

/// How many sockets on this computer are in a group, as /proc/thread-self/net/igmp counts. @param group
/// network order @param text of that file
unsigned countMembers(const std::string& text, unsigned interfaceIndex, std::uint32_t group);

} // namespace radar::detail
