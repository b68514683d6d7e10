#include <RadarWatch/local_link.h>

#include <RadarWatch/recorded_lan.h>

#include <UdpSocket/settings/settings.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>

#include <climits>
#include <cstring>
#include <memory>

namespace radar::detail {

using net::detail::setOption;

namespace {

// A full plan of 49 hosts answers one query at once.
constexpr int kReceiveBuffer = 256 * 1024;

constexpr unsigned kRecordedIndex = INT_MAX; // of no interface

bool hasAddress(const ifaddrs& entry, std::uint32_t address) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET)
        return false;
    sockaddr_in socketAddress;
    std::memcpy(&socketAddress, entry.ifa_addr, sizeof socketAddress);
    return socketAddress.sin_addr.s_addr == address;
}

} // namespace

bool findInterface(std::uint32_t address, std::optional<Interface>& found) {
    if (RecordedLan::find(address)) {
        found = Interface{RecordedLan::kInterface, kRecordedIndex};
        return true;
    }
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0)
        return false;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, &::freeifaddrs);
    std::optional<Interface> carrier;
    for (const ifaddrs* entry = first; entry != nullptr && !carrier; entry = entry->ifa_next)
        if (hasAddress(*entry, address))
            carrier = Interface{entry->ifa_name};
    if (carrier && (carrier->index = ::if_nametoindex(carrier->device().c_str())) == 0)
        return false; // without a descriptor; or it has just gone, as the next look says
    found = carrier;
    return true;
}

const char* LocalLink::open(std::uint32_t localIp, const Interface& interface, bool hears) {
    close();
    const char* refused = nullptr;
    m_isRecorded = RecordedLan::isRecorded(localIp);
    if (m_isRecorded)
        refused = openRecording(localIp);
    else if (hears)
        refused = openReceiver(localIp, interface);
    if (refused == nullptr && !m_isRecorded)
        refused = openSender(localIp);
    if (refused != nullptr) {
        const int error = errno;
        close();
        errno = error;
    }
    return refused;
}

const char* LocalLink::openRecording(std::uint32_t localIp) {
    const std::shared_ptr<RecordedLan> recording = RecordedLan::find(localIp);
    errno = EADDRNOTAVAIL;
    if (recording)
        m_receiver = recording->listen({::inet_addr(wire::kDiscovery.address), htons(wire::kDiscovery.port)},
                                       SOCK_NONBLOCK);
    return m_receiver.isOpen() ? nullptr : "socketpair";
}

const char* LocalLink::openReceiver(std::uint32_t localIp, const Interface& interface) {
    m_receiver = net::detail::openSocket(SOCK_DGRAM | SOCK_NONBLOCK);
    const in_addr_t group = ::inet_addr(wire::kDiscovery.address);
    if (!m_receiver.isOpen())
        return "socket";
    if (!setOption(m_receiver, SOL_SOCKET, SO_REUSEADDR, 1) ||
        !setOption(m_receiver, IPPROTO_IP, IP_MULTICAST_ALL, 0))
        return "setsockopt";
    setOption(m_receiver, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer); // cannot be refused, only be cut
    // By the membership it hears that interface alone, too, but for one in a VRF.
    net::detail::bindToDevice(m_receiver, interface.device());
    if (!net::detail::bindTo(m_receiver, net::detail::makeAddress(group, wire::kDiscovery.port)))
        return "bind";
    if (!net::detail::joinGroup(m_receiver, group, localIp))
        return "IP_ADD_MEMBERSHIP";
    m_joined = interface.index;
    return nullptr;
}

const char* LocalLink::openSender(std::uint32_t localIp) {
    m_sender = net::detail::openSocket(SOCK_DGRAM | SOCK_NONBLOCK);
    if (!m_sender.isOpen())
        return "socket";
    if (!setOption(m_sender, IPPROTO_IP, IP_MULTICAST_IF, net::detail::membership(0, localIp)) ||
        !setOption(m_sender, IPPROTO_IP, IP_MULTICAST_LOOP, net::settings::multicastLoop() ? 1 : 0))
        return "setsockopt";
    return net::detail::bindTo(m_sender, net::detail::makeAddress(localIp, 0)) ? nullptr : "bind";
}

void LocalLink::close() {
    if (m_joined != 0)
        net::detail::leaveGroup(m_receiver, ::inet_addr(wire::kDiscovery.address), m_joined);
    m_joined = 0;
    m_receiver.reset();
    m_sender.reset();
}

net::detail::Received LocalLink::receive(char* buffer, int size) const {
    return m_isRecorded ? RecordedLan::receiveFrom(m_receiver, buffer, size)
                        : net::detail::receiveFrom(m_receiver, buffer, size);
}

bool LocalLink::send(const wire::Group& group, std::string_view message) const {
    if (m_isRecorded)
        return true;
    const sockaddr_in to = net::detail::makeAddress(::inet_addr(group.address), group.port);
    return net::detail::sendTo(m_sender, message.data(), static_cast<int>(message.size()), to) ==
           static_cast<ssize_t>(message.size());
}

} // namespace radar::detail
