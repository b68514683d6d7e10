/// @file
/// What a stream receives from.
#pragma once

#include <RadarWatch/membership.h>
#include <RadarWatch/stream_follower.h>

#include <UdpSocket/base/descriptor.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace radar::detail {

class TcpFeed;

/// A UDP socket, tied to its interface; or the end of a pair of sockets, into whose other end a TCP
/// connection is written, or a recording. Threads: those of the TCP endpoint; any thread may call any
/// operation.
class Inlet {
public:
    /// @param receiveBuffer bytes to ask for
    /// @return null when the system refuses (errno). @throws std::bad_alloc, std::system_error
    static std::shared_ptr<Inlet> open(const Target& target, std::size_t receiveBuffer);
    ~Inlet();

    const net::detail::Descriptor& socket() const { return m_socket; }
    const Target& target() const { return m_target; }

    /// Nothing more comes in: what waits can still be received, and a thread that waits for more comes back.
    void retire();
    bool isRetired() const { return m_retired; }
    bool isReadable() const; ///< something waits to be received

    void noteData(Membership::Time arrival) {
        if (m_membership)
            m_membership->noteData(arrival);
    }
    /// Of a group. See Membership::renew. A recording has no switch.
    Membership::Renewed renew(Membership::Time now) {
        return m_membership ? m_membership->renew(now) : Membership::Renewed{Membership::Renewal::DataFlow};
    }

    std::uint64_t droppedHere() const;        ///< by this socket
    std::uint64_t droppedAtInterface() const; ///< since this was opened

private:
    Inlet() = default;
    static bool openRecorded(const std::shared_ptr<Inlet>& inlet, const Target& target);
    bool openUdp(const Target& target, std::size_t receiveBuffer);
    bool openTcp(const Target& target, std::size_t receiveBuffer);

    net::detail::Descriptor m_socket;
    Target m_target;
    std::uint64_t m_droppedBefore = 0; // at the interface
    std::unique_ptr<Membership> m_membership;
    std::unique_ptr<TcpFeed> m_feed;
    std::atomic<bool> m_retired = false;
};

/// What an interface dropped of what came in, for want of room or buffers, as /proc/thread-self/net/dev
/// counts. @param text of that file
std::uint64_t countInterfaceDrops(const std::string& text, const std::string& device);

} // namespace radar::detail
