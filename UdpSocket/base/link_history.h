/// @file
/// Interfaces that were removed, also those that came back as if they had never been away.
#pragma once

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

namespace net::detail {

/// Tells the calling thread's network namespace from others; 0 where /proc is not there: all are taken for
/// one.
std::uint64_t thisNetwork();

/// Counts the removals of each interface. One that is removed and made again with the same name, index and
/// address has lost its group memberships, and no look at it or at the socket tells that: joining again says
/// that the group is joined. The kernel's messages about links do.
///
/// Shared by all who ask in one network namespace; no thread of its own: whoever asks reads what has come.
/// Any thread. A child made by fork has one of its own, or it would take messages away from its parent.
class LinkHistory : public ProcessBound {
public:
    /// The history of the calling thread's network. Null where the system has no socket for it.
    static std::shared_ptr<LinkHistory> ofThisNetwork();

    explicit LinkHistory(Descriptor messages) : m_messages(std::move(messages)) {}

    /// How often the interface of this index may have been removed, a number to be compared with an earlier
    /// one. When messages were lost, it counts as removed.
    std::uint64_t removals(unsigned int index);

private:
    void read() REQUIRES(m_mutex);
    void take(std::string_view messages) REQUIRES(m_mutex);

    Mutex m_mutex;
    const Descriptor m_messages;
    std::map<unsigned int, std::uint64_t> m_removals GUARDED_BY(m_mutex); // by index
    std::uint64_t m_lost GUARDED_BY(m_mutex) = 0;                         // times when messages were lost
};

} // namespace net::detail
