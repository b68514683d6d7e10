/// @file
/// What doctor has seen, before anything is made of it. Addresses are in network byte order.
#pragma once

#include "../loop.h"
#include "findings.h"

#include <UdpSocket/protocol/wire.h>

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace doctor {

using Seconds = std::chrono::duration<double>;

inline constexpr std::array kGroups{wire::kDiscovery, wire::kNegotiation, wire::kBeacon};

// ------------------------------------------------------------------------------------------------ interfaces

struct LocalAddress {
    unsigned int ip;
    unsigned int mask;
};

struct Interface {
    std::string name;
    int index = 0;
    bool up = false;
    bool carrier = false;
    bool multicast = false;
    bool pointToPoint = false;
    bool partOfAnother = false; ///< of a bridge, say, or of a VLAN's interface
    bool emptyBridge = false;   ///< waits for containers, say
    int mtu = 0;                ///< bytes; 0: not readable
    std::string hardware{};     ///< its address as text, "02:00:..."
    std::vector<LocalAddress> addresses;
    int rpFilter =
        0; ///< the stricter of the machine's and the interface's own setting, as the kernel takes it

    bool contains(unsigned int ip) const {
        for (const LocalAddress& own : addresses)
            if ((own.ip & own.mask) == (ip & own.mask))
                return true;
        return false;
    }
    bool usable() const { return up && carrier && !addresses.empty(); }
};

/// All interfaces but the loopback.
std::vector<Interface> readInterfaces();

/// Where the kernel sends to from the "any" address.
struct Route {
    std::string interface; ///< empty: there is none
    int error = 0;
};
Route routeTo(unsigned int ip, const std::vector<Interface>& interfaces);

/// A route of the kernel to one group of the radars alone; no route to a network beats it.
struct GroupRoute {
    unsigned int group;
    std::string interface;
};
/// Of the routes to one group, the first is the one that the kernel takes.
std::vector<GroupRoute> readGroupRoutes();

// ------------------------------------------------------------------------------------------------- listening

/// What became of the sockets on one interface.
struct InterfaceResult {
    std::array<int, kGroups.size()> joinErrors{}; ///< errno of bind or join by group, 0: listens
    std::array<bool, kGroups.size()> bound{};
    int sendError = 0;
    int sent = 0;      ///< queries
    int looped = 0;    ///< of them came back
    bool wire = false; ///< frames could be looked at before the kernel judged them
    int igmpQueries = 0;
};

/// A host as it was heard: the same name and id from the same address through the same interface.
struct HostKey {
    int interface;
    unsigned int source;
    std::string name;                                 ///< bytes of any kind
    int id;                                           ///< 0: none of the plan
    auto operator<=>(const HostKey&) const = default; // NOLINT(modernize-use-nullptr): there is none
};
struct HeardHost {
    std::vector<Seconds> times; ///< of its announcements
    NetAddress image{};         ///< where it sends the image of its first stream
};
struct ForeignQuery {
    int interface;
    unsigned int source;
    Seconds time;
};

/// Times count from the start of the listening.
struct Listening {
    Seconds duration{0};
    std::vector<Seconds> queries;           ///< own ones, on every interface
    std::map<int, InterfaceResult> results; ///< by interface index
    std::map<HostKey, HeardHost> hosts;
    std::vector<ForeignQuery> foreignQueries;
    std::map<int, std::set<unsigned int>>
        onWire; ///< announcements' sources by interface, whatever became of them
    /// Hardware addresses by interface and address, of announcements' sources and of whoever has an address
    /// of this computer: from the wire, or, where that is closed, from the kernel's neighbour table.
    std::map<std::pair<int, unsigned int>, std::set<std::string>> hardware;
    std::map<std::uint8_t, int> objections;       ///< by host id
    std::map<unsigned int, std::set<int>> claims; ///< host ids that each address probed for
    int beacons = 0;
    int grantedBuffer = 0; ///< of the 256 KiB that the library asks for
    bool stopped = false;
};

/// Listens, asks, and listens on. @param meanwhile called again and again
/// @throws std::system_error when the machine allows no socket at all
Listening listen(
    const std::vector<Interface>& interfaces, Seconds duration, bool quick, Loop& loop,
    const std::function<void()>& meanwhile = [] {});

/// What came of the image of the radar that --follow names.
struct ImageSeen {
    std::string radar;           ///< its entry's name; as it was typed until it is found
    std::string interface;       ///< where it was listened to last; empty: nowhere
    std::uint64_t datagrams = 0; ///< or pieces of TCP
    int forgotten = 0;           ///< times that it came again just after its group was left and joined again
    bool isSilent = false;       ///< at the end
    bool hasLeft = false;        ///< the radar, by then
    Seconds followed{0};         ///< since the radar was found; 0: it was not
};

// --------------------------------------------------------------------------------------------------- machine

struct UdpSocketEntry {
    unsigned int ip;
    unsigned short port; ///< host order
    unsigned int uid;
    unsigned long inode;
    unsigned long drops;
    int process = 0;       ///< that holds it; 0: not known
    std::string program{}; ///< its name; empty: not known
};
std::vector<UdpSocketEntry> readUdpSockets();

struct ProfileEntry {
    std::string section;
    std::string key;
    int line;
};
/// Every key of a profile's text.
std::vector<ProfileEntry> profileEntries(const std::string& text);

struct Profile {
    std::string path;
    int error = 0; ///< errno of reading it, ENOENT included
    std::vector<ProfileEntry> entries;
    std::string localText;
    std::string netName;
    std::string radarText;
    unsigned int localIp =
        0; ///< what the library takes from the file, by address or by interface; 0: it searches
    bool localIsOurs = false; ///< and whether this machine has it
    unsigned int radarIp = 0;
    int radarError = 0; ///< errno of a TCP connection to the fixed radar
    bool tcpService = false;
    bool multicastLoop = false;
};
/// @param patience for the fixed radar, where there is one
Profile readProfile(std::chrono::milliseconds patience);

struct Igmp {
    std::map<std::string, std::string> versions; ///< by interface
    int memberships = 0;                         ///< of the whole machine
    int limit = -1;                              ///< for one socket; -1: not readable
};
Igmp readIgmp();

/// Datagrams that failed the kernel's check of their source since it started.
unsigned long reversePathDrops();

/// The packet filter's rules, as its own tools print them.
struct Ruleset {
    std::string nft;            ///< JSON; empty: not readable
    std::string nftText;        ///< the same as people read it: devices stand in it alone
    std::string iptables;       ///< empty: not readable, or not installed
    std::string iptablesLegacy; ///< of the older tables, which the kernel has beside them
    std::string error;          ///< why nothing is readable
    std::string remedy;         ///< a command against that
};
Ruleset readRuleset();

struct Observation {
    std::string only; ///< the one interface that was looked at; empty: all
    std::vector<Interface> interfaces;
    std::set<std::string> ownHardware; ///< addresses of all interfaces, looked at or not
    Listening listening;
    std::optional<ImageSeen> image;
    std::vector<UdpSocketEntry> socketsBefore; ///< before doctor made its own
    std::vector<UdpSocketEntry> socketsAfter;  ///< after doctor closed its own
    Profile profile;
    Igmp igmp;
    Ruleset rules;
    unsigned long reversePathDrops = 0; ///< during the listening
    Route discoveryRoute;
    Route groupsRoute; ///< of the groups that have none of their own
    std::vector<GroupRoute> groupRoutes;
    std::map<unsigned int, Route> routesToRadars;

    bool radarHeard() const { return !listening.hosts.empty(); }
    bool radarHeardOn(int interface) const;
    const Interface* interface(int index) const;
    bool isOwn(unsigned int ip) const;
    /// Whether a program on this machine takes part in the negotiation of host ids.
    bool hostHere() const;
};

/// Everything there is to say, the gravest first.
Report judge(const Observation& seen);

Report judgeInterfaces(const Observation& seen);
Report judgeProfileKeys(const Observation& seen);
Report judgeMachine(const Observation& seen);
Report judgePorts(const Observation& seen);
Report judgeFirewall(const Observation& seen);
Report judgeHosts(const Observation& seen);
Report judgeImage(const ImageSeen& image, const Listening& listening);
/// What is left to say when no other finding explains why nothing is heard.
Report judgeSilence(const Observation& seen);

/// Sources that announce on the wire of an interface and reach no socket there.
std::set<unsigned int> undelivered(const Observation& seen, int index);

/// A hardware address as text; empty for one that is not Ethernet's.
std::string hardwareText(const sockaddr_storage& packetAddress);

/// The name that the command sysctl knows an interface's setting by.
std::string sysctlOf(const Interface& interface, const std::string& setting);

/// Dotted text of a network-order address, and of an address with its prefix length.
std::string text(unsigned int ip);
std::string text(const LocalAddress& address);

} // namespace doctor
