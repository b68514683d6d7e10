#include <UdpSocket/transport/interfaces.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace net {

namespace {

using InterfaceTable = std::map<unsigned int, tNetworkInterface>;
using InterfaceList = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

InterfaceList readInterfaces() {
    ifaddrs* first = nullptr;
    return InterfaceList(::getifaddrs(&first) == 0 ? first : nullptr, &::freeifaddrs);
}

using Failure = std::pair<const char*, int>; // a call, null where none has failed, and its errno

Failure failed(const char* call) {
    return {call, errno};
}

void print(const Failure& failure) {
    if (failure.first == nullptr)
        return;
    errno = failure.second;
    std::perror(failure.first);
}

constexpr const char* kListing = "get ifAddrs";

/// Writes the hardware address of an interface to @p mac, as getMac() does.
Failure readMac(char* mac, const char* ifname) {
    const detail::Descriptor socket = detail::openSocket(SOCK_STREAM);
    if (!socket.isOpen())
        return failed("socket ");
    ifreq request{};
    if (std::strlen(ifname) >= sizeof request.ifr_name)
        return {};
    std::strcpy(request.ifr_name, ifname);
    if (::ioctl(socket.get(), SIOCGIFHWADDR, &request) != 0)
        return failed("ioctl ");
    unsigned char bytes[6];
    std::memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof bytes);
    std::sprintf(mac, "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                 bytes[5]);
    return {};
}

/// The entry's IPv4 address in network order; false for an entry of another family or without an address.
bool ipv4Address(const ifaddrs& entry, in_addr& address) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET)
        return false;
    sockaddr_in socketAddress;
    std::memcpy(&socketAddress, entry.ifa_addr, sizeof socketAddress);
    address = socketAddress.sin_addr;
    return true;
}

/// The address that the system would send from to @p destination, both network order; 0: it has no route.
unsigned int sourceTowards(unsigned int destination) {
    const detail::Descriptor socket = detail::openSocket(SOCK_DGRAM);
    sockaddr_in address = detail::makeAddress(destination, 9); // any port: connecting sends nothing
    socklen_t length = sizeof address;
    if (!socket.isOpen() ||
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return 0;
    return address.sin_addr.s_addr;
}

} // namespace

std::mutex networkIfMutex;

namespace {

// It guards no data, and a program may hold it where it forks, so forks do not wait for it.
[[maybe_unused]] const int s_freeInChildren =
    ::pthread_atfork(nullptr, nullptr, [] { std::construct_at(&networkIfMutex); });

/// Reads the table; nothing is printed, since the caller holds networkIfMutex.
std::optional<InterfaceTable> readTable(std::vector<Failure>& failures) {
    InterfaceTable table;
    const InterfaceList list = readInterfaces();
    if (!list) {
        failures.push_back(failed(kListing));
        return std::nullopt;
    }
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        in_addr address;
        if (!ipv4Address(*entry, address))
            continue;
        char text[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &address, text, sizeof text);
        char mac[32] = "";
        if (entry->ifa_name != nullptr)
            failures.push_back(readMac(mac, entry->ifa_name));
        table.insert({address.s_addr, {text, mac, entry->ifa_name != nullptr ? entry->ifa_name : ""}});
    }
    table.erase(0);
    return table;
}

} // namespace

InterfaceTable localNetworkInterfaces() {
    return detail::listInterfaces().value_or(InterfaceTable());
}

std::string localMac(unsigned int ip) {
    const auto table = localNetworkInterfaces();
    const auto found = table.find(ip);
    if (found == table.end())
        throw std::logic_error("basic_string::_M_construct null not valid");
    std::string mac = found->second.mac;
    std::erase(mac, ':');
    return mac;
}

std::string localIfaName(unsigned int ip) {
    const auto table = localNetworkInterfaces();
    const auto found = table.find(ip);
    return found == table.end() ? "" : found->second.name;
}

std::set<unsigned int> localIpSet() {
    const InterfaceList list = readInterfaces();
    if (!list) {
        std::perror(kListing);
        return {0};
    }
    std::set<unsigned int> addresses;
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        in_addr address;
        if (ipv4Address(*entry, address))
            addresses.insert(address.s_addr);
    }
    addresses.erase(htonl(INADDR_LOOPBACK));
    addresses.erase(0);
    return addresses;
}

char* getMac(char* mac, char* ifname) {
    if (mac != nullptr && ifname != nullptr)
        print(readMac(mac, ifname));
    return mac;
}

namespace detail {

std::optional<InterfaceTable> listInterfaces() {
    std::vector<Failure> failures;
    std::unique_lock lock(networkIfMutex);
    auto table = readTable(failures);
    lock.unlock();
    for (const Failure& failure : failures)
        print(failure);
    return table;
}

std::string deviceName(const std::string& interfaceName) {
    return interfaceName.substr(0, interfaceName.find(':'));
}

std::string interfaceName(unsigned int localIp) {
    const InterfaceList list = readInterfaces();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        in_addr address;
        if (ipv4Address(*entry, address) && address.s_addr == localIp && entry->ifa_name != nullptr)
            return entry->ifa_name;
    }
    return "";
}

unsigned int interfaceIndex(unsigned int localIp, unsigned int group) {
    if (localIp == 0)
        localIp = sourceTowards(group);
    const std::string name = localIp == 0 ? "" : interfaceName(localIp);
    return name.empty() ? 0 : ::if_nametoindex(deviceName(name).c_str());
}

} // namespace detail
} // namespace net
