/// @file
/// What doctor can find, and how a finding reads.
#pragma once

#include "../table.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace doctor {

/// Every finding that there is, in the order in which they are listed.
enum class Id {
    HostHere,
    NoAddress,
    InterfaceDown,
    NoCarrier,
    NoMulticast,
    SmallMtu,
    WrongSubnet,
    WrongInterface,
    TwoPaths,
    RpFilter,
    NoMulticastRoute,
    LeftOverRoute,
    Firewall,
    FirewallUnread,
    QueryNotSent,
    PortTaken,
    MembershipLimit,
    ReceiveBuffer,
    SocketDrops,
    IgmpVersion,
    NoQuerier,
    SwitchForgets,
    NoImage,
    WireUnread,
    ProfileUnreadable,
    ProfileAddress,
    ProfileInterface,
    ProfileKey,
    FixedRadar,
    SameAddress,
    SameId,
    SameName,
    LateAnswers,
    LostAnswers,
    IdContest,
    OtherDisplay,
    NoRadar,
    Count
};

/// Stable words: they stand in the output, in its JSON and in docs/troubleshooting.md.
struct Kind {
    const char* word;
    const char* about;
};

inline constexpr std::array<Kind, static_cast<std::size_t>(Id::Count)> kKinds{{
    {"host-here", "a radar host runs on this machine"},
    {"no-address", "an interface has no IPv4 address"},
    {"interface-down", "an interface with an address is switched off"},
    {"no-carrier", "an interface has no link"},
    {"no-multicast", "an interface has its multicast flag off"},
    {"small-mtu", "an interface takes tiny packets only"},
    {"wrong-subnet", "a radar announces from outside the interface's network"},
    {"wrong-interface", "the configured interface hears no radar, another one does"},
    {"two-paths", "the same radar is heard through two interfaces"},
    {"rp-filter", "the kernel drops announcements by their source"},
    {"no-multicast-route", "a radar host on this machine has no route for its groups"},
    {"left-over-route", "a route to one group leads a radar host's datagrams out of the wrong interface"},
    {"firewall", "this machine's packet filter drops the radar groups"},
    {"firewall-unread", "the packet filter's rules could not be read"},
    {"query-not-sent", "the system refuses to send a query"},
    {"port-taken", "another program holds a port of the library for itself"},
    {"membership-limit", "the system allows too few multicast memberships"},
    {"receive-buffer", "the system grants too small a receive buffer"},
    {"socket-drops", "a program does not empty its socket in time"},
    {"igmp-version", "an old IGMP version is in use"},
    {"no-querier", "nobody on the network asks for multicast memberships"},
    {"switch-forgets", "a switch forgets that this computer listens to a radar"},
    {"no-image", "the image of the radar that was to be followed does not come"},
    {"wire-unread", "the wire itself could not be looked at"},
    {"profile-unreadable", "profile.ini is there and cannot be read"},
    {"profile-address", "profile.ini names an address that this machine lacks"},
    {"profile-interface", "profile.ini names an interface that this machine lacks"},
    {"profile-key", "profile.ini has a section or key that the library does not read"},
    {"fixed-radar", "profile.ini names a radar that is reached over TCP"},
    {"same-address", "two computers have one address"},
    {"same-id", "two hosts hold one host id"},
    {"same-name", "two hosts have one name"},
    {"late-answers", "a host answers later than displays wait"},
    {"lost-answers", "a host answers only some of the queries"},
    {"id-contest", "host ids are being objected to again and again"},
    {"other-display", "another display asks the radars, too"},
    {"no-radar", "nobody answers, and nothing on this machine explains it"},
}};

enum class Severity { Fault, Warning, Note, Unchecked };

inline const char* word(Severity severity) {
    constexpr const char* words[] = {"fault", "warning", "note", "unchecked"};
    return words[static_cast<std::size_t>(severity)];
}

/// Each text is a part of a line, without a full stop and fit for a terminal.
struct Finding {
    Id id;
    Severity severity;
    std::string what;
    std::string remedy; ///< may be empty
    std::string measured;

    const char* word() const { return kKinds[static_cast<std::size_t>(id)].word; }
    bool isComplaint() const { return severity == Severity::Fault || severity == Severity::Warning; }
};

using Findings = std::vector<Finding>;

/// One thing that was looked at, with what was seen.
struct Check {
    std::string subject;
    std::string seen;
};

/// What one family of checks has to say. Every text is escaped here, whoever chose a part of it.
struct Report {
    Findings findings;
    std::vector<Check> checks;

    void find(Id id, Severity severity, const std::string& what, const std::string& remedy,
              const std::string& measured) {
        findings.push_back({id, severity, printable(what), printable(remedy), printable(measured)});
    }
    void check(const std::string& subject, const std::string& seen) {
        checks.push_back({printable(subject), printable(seen)});
    }
};

} // namespace doctor
