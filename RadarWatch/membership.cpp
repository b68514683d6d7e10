#include <RadarWatch/membership.h>

#include <RadarWatch/system_file.h>

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>

#include <netinet/in.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace radar::detail {

using namespace std::chrono_literals;
using net::detail::Lock;
using net::detail::Mutex;

namespace {

constexpr auto kFlowing = 1s;     // since the last datagram of a group that has not fallen silent
constexpr auto kJustRenewed = 1s; // streams of one group fall silent together

} // namespace

struct Membership::Registry : net::detail::ProcessBound {
    struct Group {
        std::vector<Membership*> members;
        Time renewed = Time::min();
    };
    Mutex mutex;
    std::map<Key, Group> groups GUARDED_BY(mutex);
};

Membership::Registry& Membership::registry() {
    return net::detail::ofThisProcess<Registry>();
}

Membership::Membership(const net::detail::Descriptor& socket, Key key, std::uint32_t localAddress)
    : m_socket(socket), m_key(key), m_localAddress(localAddress) {}

bool Membership::change(int option) const {
    ip_mreqn request{};
    request.imr_multiaddr.s_addr = m_key.second;
    request.imr_address.s_addr = m_localAddress;
    request.imr_ifindex = static_cast<int>(m_key.first);
    return net::detail::setOption(m_socket, IPPROTO_IP, option, request);
}

std::unique_ptr<Membership> Membership::join(const net::detail::Descriptor& socket, std::uint32_t group,
                                             std::uint32_t localAddress, unsigned interfaceIndex) {
    Registry& all = registry(); // made before what needs it in the end
    std::unique_ptr<Membership> membership(new Membership(socket, {interfaceIndex, group}, localAddress));
    Lock lock(all.mutex);
    if (!membership->change(IP_ADD_MEMBERSHIP)) {
        const int error = errno;
        lock.unlock();
        membership.reset();
        errno = error;
        return nullptr;
    }
    all.groups[membership->m_key].members.push_back(membership.get());
    membership->m_joined = true;
    return membership;
}

void Membership::leave() {
    Lock lock(registry().mutex);
    if (!std::exchange(m_joined, false))
        return;
    const auto found = registry().groups.find(m_key);
    std::erase(found->second.members, this);
    if (found->second.members.empty())
        registry().groups.erase(found);
    change(IP_DROP_MEMBERSHIP); // refused where the interface is gone
}

Membership::Renewed Membership::renew(Time now) {
    Lock lock(registry().mutex);
    if (m_lost || !m_joined)
        return {Renewal::Lost};
    Registry::Group& group = registry().groups.find(m_key)->second;
    if (group.renewed != Time::min() && now - group.renewed < kJustRenewed)
        return {Renewal::Done};
    for (const Membership* member : group.members)
        if (now - member->m_lastData.load(std::memory_order_relaxed) < kFlowing)
            return {Renewal::DataFlow};
    const auto own = static_cast<unsigned>(group.members.size());
    const unsigned all =
        countMembers(readSystemFile("/proc/thread-self/net/igmp"), m_key.first, m_key.second);
    if (all > own)
        return {Renewal::OthersJoined, all - own};
    for (const Membership* member : group.members)
        member->change(IP_DROP_MEMBERSHIP);
    for (Membership* member : group.members)
        member->m_lost = !member->change(IP_ADD_MEMBERSHIP);
    group.renewed = now;
    return {m_lost ? Renewal::Lost : Renewal::Done};
}

// Idx Device    : Count Querier  Group    Users Timer  Reporter
// 2   eth0      :     2      V3
//                                0807060EC     1 0:00000000   0
unsigned countMembers(const std::string& text, unsigned interfaceIndex, std::uint32_t group) {
    std::istringstream lines(text);
    unsigned index = 0;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::uint32_t listed = 0;
        unsigned users = 0;
        if (!line.starts_with('\t')) {
            index = 0;
            fields >> index;
        } else if (index == interfaceIndex && fields >> std::hex >> listed >> std::dec >> users &&
                   listed == group) {
            return users;
        }
    }
    return 0;
}

} // namespace radar::detail
