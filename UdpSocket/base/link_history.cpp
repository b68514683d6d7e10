#include <UdpSocket/base/link_history.h>

#include <UdpSocket/base/socket.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace net::detail {

namespace {

constexpr std::size_t kBuffer = 16384; // the longest message about a link has a few thousand bytes

Descriptor openLinkMessages() {
    Descriptor socket =
        ownSocket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (!socket.isOpen() ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    return socket;
}

StaticMutex s_mutex;

/// By network. Never destroyed: threads may ask while the program ends.
std::map<std::uint64_t, std::weak_ptr<LinkHistory>>& histories() REQUIRES(s_mutex) {
    static auto& all = *new std::map<std::uint64_t, std::weak_ptr<LinkHistory>>;
    return all;
}

} // namespace

std::uint64_t thisNetwork() {
    struct stat state {};
    return ::stat("/proc/thread-self/ns/net", &state) == 0 ? state.st_ino : 0;
}

std::shared_ptr<LinkHistory> LinkHistory::ofThisNetwork() {
    Lock lock(s_mutex);
    std::weak_ptr<LinkHistory>& known = histories()[thisNetwork()];
    if (auto history = known.lock(); history && history->inOwnProcess())
        return history;
    Descriptor messages = openLinkMessages();
    if (!messages.isOpen())
        return nullptr;
    auto history = std::make_shared<LinkHistory>(std::move(messages));
    known = history;
    return history;
}

std::uint64_t LinkHistory::removals(unsigned int index) {
    Lock lock(m_mutex);
    read();
    const auto found = m_removals.find(index);
    return m_lost + (found == m_removals.end() ? 0 : found->second);
}

void LinkHistory::read() {
    char buffer[kBuffer];
    for (;;) {
        const ssize_t count = ::recv(m_messages.get(), buffer, sizeof buffer, 0);
        if (count > 0)
            take({buffer, static_cast<std::size_t>(count)});
        else if (count < 0 && errno == ENOBUFS)
            ++m_lost;
        else if (count == 0 || errno != EINTR)
            return;
    }
}

void LinkHistory::take(std::string_view messages) {
    nlmsghdr header;
    while (messages.size() >= NLMSG_LENGTH(sizeof(ifinfomsg))) {
        std::memcpy(&header, messages.data(), sizeof header);
        if (header.nlmsg_len < sizeof header)
            return;
        ifinfomsg link;
        std::memcpy(&link, messages.data() + NLMSG_HDRLEN, sizeof link);
        // A bridge tells of a port that leaves it in the same words, of its own family.
        if (header.nlmsg_type == RTM_DELLINK && link.ifi_family == AF_UNSPEC)
            ++m_removals[static_cast<unsigned int>(link.ifi_index)];
        messages.remove_prefix(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), messages.size()));
    }
}

} // namespace net::detail
