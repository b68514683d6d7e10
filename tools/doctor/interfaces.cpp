#include "observation.h"

#include <UdpSocket/base/socket.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>

namespace doctor {

std::string text(unsigned int ip) {
    char buffer[INET_ADDRSTRLEN] = "";
    const in_addr address{ip};
    ::inet_ntop(AF_INET, &address, buffer, sizeof buffer);
    return buffer;
}

std::string text(const LocalAddress& address) {
    return text(address.ip) + "/" + std::to_string(std::popcount(address.mask));
}

std::string sysctlOf(const Interface& interface, const std::string& setting) {
    std::string name = interface.name;
    std::ranges::replace(name, '.', '/'); // as sysctl has a dot that parts nothing, of a VLAN say
    return "net.ipv4.conf." + name + "." + setting;
}

namespace {

constexpr int kSmallMtu = 576;             // bytes, which every IPv4 host has to take
constexpr unsigned int kLowerUp = 1 << 16; // IFF_LOWER_UP, whose header does not go with <net/if.h>

unsigned int ipOf(const sockaddr* address) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address, sizeof ipv4);
    return ipv4.sin_addr.s_addr;
}

int setting(const std::string& path) {
    std::ifstream file(path);
    int value = 0;
    return file >> value ? value : 0;
}

std::string addressesOf(const Interface& interface) {
    std::string list;
    for (const LocalAddress& address : interface.addresses)
        list += (list.empty() ? "" : ", ") + text(address);
    return list.empty() ? "no address" : list;
}

std::string stateOf(const Interface& interface) {
    return !interface.up ? "down" : !interface.carrier ? "no carrier" : "up";
}

} // namespace

std::vector<Interface> readInterfaces() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot list the interfaces");
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, &::freeifaddrs);
    std::map<int, Interface> byIndex;
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        std::string name = entry->ifa_name;
        name.resize(std::min(name.size(), name.find(':'))); // of an alias
        const int index = static_cast<int>(::if_nametoindex(name.c_str()));
        if (index == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0)
            continue;
        Interface& interface = byIndex[index];
        interface.name = name;
        interface.index = index;
        interface.up = (entry->ifa_flags & IFF_UP) != 0;
        interface.carrier = (entry->ifa_flags & kLowerUp) != 0;
        interface.pointToPoint = (entry->ifa_flags & IFF_POINTOPOINT) != 0;
        interface.multicast = (entry->ifa_flags & IFF_MULTICAST) != 0;
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET) {
            sockaddr_storage address{};
            std::memcpy(&address, entry->ifa_addr, sizeof(sockaddr_ll));
            interface.hardware = hardwareText(address);
        }
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET)
            interface.addresses.push_back({ipOf(entry->ifa_addr), ipOf(entry->ifa_netmask)});
    }
    std::vector<Interface> result;
    for (auto& [index, interface] : byIndex) {
        std::error_code error;
        const std::filesystem::path device = "/sys/class/net/" + interface.name;
        for (std::filesystem::directory_iterator file(device, error), end; file != end; file.increment(error))
            interface.partOfAnother |= file->path().filename().string().starts_with("upper_");
        interface.emptyBridge = std::filesystem::is_empty(device / "brif", error) && !error;
        interface.mtu = setting(device / "mtu");
        const std::string settings = "/proc/sys/net/ipv4/conf/";
        interface.rpFilter =
            std::max(setting(settings + "all/rp_filter"), setting(settings + interface.name + "/rp_filter"));
        result.push_back(std::move(interface));
    }
    return result;
}

Route routeTo(unsigned int ip, const std::vector<Interface>& interfaces) {
    // The kernel picks the source address with the route; nothing is sent by connecting a UDP socket.
    const net::detail::Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
    if (!socket.isOpen())
        return {"", errno};
    sockaddr_in address = net::detail::makeAddress(ip, wire::kDiscovery.port);
    socklen_t length = sizeof address;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return {"", errno};
    Route route{"lo", 0};
    for (const Interface& interface : interfaces)
        for (const LocalAddress& own : interface.addresses)
            if (own.ip == address.sin_addr.s_addr)
                route.interface = interface.name;
    return route;
}

std::vector<GroupRoute> readGroupRoutes() {
    constexpr unsigned int kPlans[] = {236U << 8 | 6, 234U << 8 | 5}; // of host ids, of dedicated radars
    std::vector<GroupRoute> routes;
    std::ifstream table("/proc/net/route");
    std::string line;
    std::getline(table, line); // heading
    while (std::getline(table, line)) {
        std::istringstream words(line); // the numbers in hexadecimal digits, addresses in network order
        std::string interface, references, use, metric;
        unsigned int destination = 0, gateway = 0, flags = 0, mask = 0;
        if (words >> interface >> std::hex >> destination >> gateway >> flags >> references >> use >>
                metric >> mask &&
            mask == ~0U && std::ranges::count(kPlans, ntohl(destination) >> 16) != 0)
            routes.push_back({destination, interface});
    }
    return routes;
}

bool Observation::isOwn(unsigned int ip) const {
    return std::ranges::any_of(interfaces, [ip](const Interface& interface) {
        return std::ranges::count(interface.addresses, ip, &LocalAddress::ip) != 0;
    });
}

bool Observation::radarHeardOn(int index) const {
    return std::ranges::any_of(listening.hosts,
                               [index](const auto& host) { return host.first.interface == index; });
}

const Interface* Observation::interface(int index) const {
    const auto found = std::ranges::find(interfaces, index, &Interface::index);
    return found != interfaces.end() ? &*found : nullptr;
}

std::set<unsigned int> undelivered(const Observation& seen, int index) {
    std::set<unsigned int> sources;
    if (const auto found = seen.listening.onWire.find(index); found != seen.listening.onWire.end())
        sources = found->second;
    for (const auto& [host, heard] : seen.listening.hosts)
        if (host.interface == index)
            sources.erase(host.source);
    return sources;
}

namespace {

void judgeLink(const Observation& seen, const Interface& interface, Report& report) {
    // One that nobody needs is no fault while the radars are heard through another.
    const bool isNoCable = interface.emptyBridge || interface.pointToPoint; // of a VPN, say
    const Severity severity = seen.radarHeard() || isNoCable ? Severity::Note : Severity::Fault;
    const std::string measured = interface.name + " " + addressesOf(interface) + ", " + stateOf(interface);
    if (!interface.up)
        report.find(Id::InterfaceDown, severity, interface.name + " is switched off",
                    "ip link set " + interface.name + " up", measured);
    else if (!interface.carrier)
        report.find(Id::NoCarrier, severity, interface.name + " has no carrier",
                    "plug in its cable, or look at the switch port at the other end", measured);
    else if (!interface.multicast && !interface.pointToPoint)
        report.find(Id::NoMulticast, seen.radarHeard() ? Severity::Warning : Severity::Fault,
                    interface.name + " has its multicast flag off",
                    "ip link set " + interface.name + " multicast on", measured);
    if (interface.usable() && interface.mtu != 0 && interface.mtu < kSmallMtu)
        report.find(Id::SmallMtu, seen.radarHeard() ? Severity::Warning : Severity::Fault,
                    interface.name + " takes packets of up to " + std::to_string(interface.mtu) +
                        " bytes, so announcements and streams may not come through",
                    "ip link set " + interface.name + " mtu 1500", "MTU " + std::to_string(interface.mtu));
}

void judgeSubnet(const Observation& seen, const Interface& interface, Report& report) {
    std::set<unsigned int> sources = undelivered(seen, interface.index);
    for (const auto& [host, heard] : seen.listening.hosts)
        if (host.interface == interface.index)
            sources.insert(host.source);
    std::erase_if(sources, [&](unsigned int source) { return interface.contains(source); });
    if (sources.empty())
        return;
    const std::string first = text(*sources.begin());
    report.find(Id::WrongSubnet, Severity::Warning,
                (sources.size() == 1
                     ? "the radar at " + first + " is"
                     : std::to_string(sources.size()) + " radars, at " + first + " and others, are") +
                    " outside the network of " + interface.name,
                "give " + interface.name +
                    " an address and netmask of the radars' network, or the radar one of this network",
                "announcements from " + first + ", " + interface.name + " has " + addressesOf(interface));
}

void judgeReversePath(const Observation& seen, const Interface& interface, Report& report) {
    if (interface.rpFilter == 0)
        return;
    const std::string measured = "rp_filter " + std::to_string(interface.rpFilter) + " on " + interface.name +
                                 ", " + counted(seen.reversePathDrops, "datagram") +
                                 " of this machine failed the check while it was looked at";
    const std::string remedy = "sysctl net.ipv4.conf.all.rp_filter=0 " + sysctlOf(interface, "rp_filter=0") +
                               ", or correct the route to the radars";
    for (const unsigned int source : undelivered(seen, interface.index)) {
        const auto route = seen.routesToRadars.find(source);
        const std::string path = route == seen.routesToRadars.end() || route->second.interface.empty()
                                     ? "nowhere"
                                     : route->second.interface;
        const bool failsCheck = interface.rpFilter == 1 ? path != interface.name : path == "nowhere";
        if (failsCheck)
            return report.find(Id::RpFilter, Severity::Fault,
                               "the kernel drops what " + text(source) + " sends through " + interface.name +
                                   ", since its way back leads " +
                                   (path == "nowhere" ? path : "through " + path),
                               remedy, measured);
    }
    const bool blind =
        !seen.listening.results.contains(interface.index) || !seen.listening.results.at(interface.index).wire;
    if (blind && seen.reversePathDrops > 0 && !seen.radarHeardOn(interface.index) && interface.usable())
        report.find(Id::RpFilter, seen.radarHeard() ? Severity::Note : Severity::Fault,
                    "the kernel drops datagrams whose way back does not lead through the interface that they "
                    "came in by, and " +
                        interface.name + " checks for that",
                    remedy, measured);
}

/// The interfaces that other radars or displays are heard on, or else the one that leads to the groups.
std::set<std::string> rightInterfaces(const Observation& seen) {
    std::set<std::string> names;
    const auto add = [&](int index, unsigned int source) {
        if (const Interface* interface = seen.interface(index); interface != nullptr && !seen.isOwn(source))
            names.insert(interface->name);
    };
    for (const auto& [host, heard] : seen.listening.hosts)
        add(host.interface, host.source);
    for (const ForeignQuery& query : seen.listening.foreignQueries)
        add(query.interface, query.source);
    if (names.empty() && !seen.groupsRoute.interface.empty())
        names.insert(seen.groupsRoute.interface);
    return names;
}

/// @return whether such a route was found
bool judgeLeftOverRoutes(const Observation& seen, Report& report) {
    const std::set<std::string> right = rightInterfaces(seen);
    std::set<unsigned int>
        settled; // groups whose datagrams leave by a right interface, once the rest is gone
    std::string routes;
    std::string commands;
    for (const GroupRoute& route : seen.groupRoutes) {
        if (right.empty() || settled.contains(route.group))
            continue;
        if (right.contains(route.interface)) {
            settled.insert(route.group);
            continue;
        }
        const std::string device = " dev " + route.interface;
        routes += (routes.empty() ? "" : ", ") + text(route.group) + "/32" + device;
        commands += (commands.empty() ? "" : " && ") + ("ip route del " + text(route.group)) + device;
    }
    if (routes.empty())
        return false;
    std::string names;
    for (const std::string& name : right)
        names += (names.empty() ? "" : " or ") + name;
    report.find(Id::LeftOverRoute, Severity::Fault,
                "a radar host runs here, and what it sends leaves by a route to one group alone instead of " +
                    names,
                commands + ", since no route to 236.6.0.0/16 beats it", routes);
    return true;
}

void judgeRoute(const Observation& seen, Report& report) {
    const Route& route = seen.discoveryRoute;
    const std::string path = route.interface.empty() ? "none" : "through " + route.interface;
    const std::string group = wire::kDiscovery.address;
    report.check("multicast route", group + ": " + path + " (displays need none, radar hosts do)");
    if (!seen.hostHere())
        return;
    if (route.interface.empty())
        report.find(Id::NoMulticastRoute, Severity::Fault,
                    "a radar host runs here, and there is no route that its answers could take",
                    "ip route add 236.6.0.0/16 dev INTERFACE, or a default route",
                    group + ": " + std::generic_category().message(route.error));
    if (!seen.only.empty()) // whether radars are heard on others, too, is not known
        return;
    if (judgeLeftOverRoutes(seen, report) || route.interface.empty() ||
        rightInterfaces(seen).contains(route.interface))
        return;
    for (const auto& [host, heard] : seen.listening.hosts)
        if (const Interface* on = seen.interface(host.interface);
            on != nullptr && on->name != route.interface)
            return report.find(Id::NoMulticastRoute, Severity::Fault,
                               "a radar host runs here, and its answers leave through " + route.interface +
                                   " while the radars are on " + on->name,
                               "ip route add 236.6.0.0/16 dev " + on->name,
                               group + ": " + path + ", radar heard through " + on->name);
}

/// Without an address the library cannot listen, whatever its cable brings. What is no Ethernet, a CAN bus
/// say, needs none.
void judgeAddress(const Observation& seen, const Interface& interface, Report& report) {
    if (interface.addresses.empty() && interface.up && interface.carrier && !interface.hardware.empty() &&
        !interface.partOfAnother && !seen.radarHeard())
        report.find(Id::NoAddress, Severity::Fault, interface.name + " has no IPv4 address",
                    "ip address add ADDRESS/PREFIX dev " + interface.name + ", or start its DHCP client",
                    interface.name + " up, with carrier");
}

/// Whether the library would take an interface, and why.
std::string verdict(const Observation& seen, const Interface& interface) {
    if (const unsigned int configured = seen.profile.localIp; configured != 0)
        return std::ranges::count(interface.addresses, configured, &LocalAddress::ip) != 0
                   ? "taken: profile.ini says so"
                   : "not taken: profile.ini names " + text(configured);
    if (!interface.up || interface.addresses.empty())
        return "not taken: " + std::string(interface.up ? "no address" : "down");
    if (!interface.carrier)
        return "not taken: no carrier";
    int radars = 0;
    for (const auto& [host, heard] : seen.listening.hosts)
        radars += host.interface == interface.index ? 1 : 0;
    if (radars == 0)
        return "not taken: no radar heard there";
    return "taken: " + std::to_string(radars) + (radars == 1 ? " radar" : " radars") + " heard there";
}

} // namespace

Report judgeInterfaces(const Observation& seen) {
    Report report;
    int heardOn = 0;
    std::string where;
    if (!seen.only.empty())
        report.check("interfaces", seen.only + " alone was looked at");
    for (const Interface& interface : seen.interfaces) {
        report.check("interface " + interface.name,
                     addressesOf(interface) + ", " + stateOf(interface) + "; " + verdict(seen, interface));
        if (seen.radarHeardOn(interface.index)) {
            ++heardOn;
            where += (where.empty() ? "" : ", ") + interface.name;
        }
        judgeAddress(seen, interface, report);
        if (interface.addresses.empty())
            continue;
        judgeLink(seen, interface, report);
        judgeSubnet(seen, interface, report);
        judgeReversePath(seen, interface, report);
    }
    if (seen.interfaces.empty())
        report.find(Id::NoAddress, Severity::Fault, "this computer has no network interface",
                    "look whether its driver is loaded: ip link", "the loopback interface alone");
    if (heardOn > 1 && !seen.profile.localIsOurs) // with a configured address, displays stay there
        report.find(Id::TwoPaths, Severity::Warning,
                    "radars are heard through more than one interface, and displays change between them",
                    "set [Local] IP in profile.ini to the address that displays shall use",
                    "heard through " + where);
    judgeRoute(seen, report);
    return report;
}

} // namespace doctor
