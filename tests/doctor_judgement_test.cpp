// What radarctl doctor makes of what it saw: pure, on a healthy network with one thing changed. doctor_test
// looks at networks that are really broken.
#include "test.h"

#include <tools/doctor/observation.h>
#include <tools/doctor/redaction.h>

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <clocale>

namespace {

using namespace doctor;
using net::transAddr;

constexpr int kEth0 = 2;
constexpr int kEth1 = 3;
constexpr unsigned int kMask16 = 0x0000FFFF; // network byte order
constexpr unsigned int kMask24 = 0x00FFFFFF;

/// A host that answers every n-th query after a delay.
void hear(Observation& seen, const char* name, const char* source, int id, int interface = kEth0,
          Seconds delay = 5ms, std::size_t every = 1) {
    HeardHost& heard = seen.listening.hosts[{interface, transAddr(source), name, id}];
    for (std::size_t i = 0; i < seen.listening.queries.size(); i += every)
        heard.times.push_back(seen.listening.queries[i] + delay);
    seen.listening.onWire[interface].insert(transAddr(source));
    seen.routesToRadars[transAddr(source)] = {"eth0", 0};
}

/// A display's ten seconds on two interfaces, with two radars on the first.
Observation healthy() {
    Observation seen;
    Interface eth0;
    eth0.name = "eth0";
    eth0.index = kEth0;
    eth0.up = eth0.carrier = eth0.multicast = true;
    Interface eth1 = eth0;
    eth0.addresses = {{transAddr("10.20.2.1"), kMask16}};
    eth1.name = "eth1";
    eth1.index = kEth1;
    eth1.addresses = {{transAddr("192.168.1.1"), kMask24}};
    seen.interfaces = {eth0, eth1};
    seen.listening.duration = 10s;
    seen.listening.queries = {1s, 2s, 3s, 4s, 5s};
    for (const int index : {kEth0, kEth1})
        seen.listening.results[index] = {
            .bound = {true, true, true}, .sent = 5, .looped = 5, .wire = true, .igmpQueries = 1};
    seen.listening.grantedBuffer = 256 * 1024;
    seen.profile.path = "profile.ini";
    seen.profile.error = ENOENT;
    seen.profile.localText = "0.0.0.0";
    seen.igmp = {{{"eth0", "V3"}, {"eth1", "V3"}}, 8, 20};
    seen.rules.nft = R"({"nftables": []})";
    seen.discoveryRoute = {"eth0", 0};
    hear(seen, "North", "10.20.1.1", 20);
    hear(seen, "South", "10.20.1.2", 21);
    return seen;
}

void loseHosts(Observation& seen) {
    seen.listening.hosts.clear();
    seen.listening.onWire.clear();
}

UdpSocketEntry boundTo(const wire::Group& group, unsigned int user, int process, const char* program) {
    return {transAddr(group.address), group.port, user, 1, 0, process, process != 0 ? program : ""};
}
UdpSocketEntry negotiates(unsigned int user, int process, const char* program = "radarctl") {
    return boundTo(wire::kNegotiation, user, process, program);
}
UdpSocketEntry hearsBeacons(unsigned int user, int process, const char* program = "radarctl") {
    return boundTo(wire::kBeacon, user, process, program);
}

void runHostHere(Observation& seen) {
    seen.socketsBefore = {negotiates(0, 0)};
    seen.groupsRoute = {"eth0", 0};
}

void routeDiscovery(Observation& seen, const char* first, const char* second) {
    const auto group = transAddr(wire::kDiscovery.address);
    seen.groupRoutes = {{group, first}, {group, second}};
}

void loseQueries(Observation& seen) {
    loseHosts(seen);
    for (auto& [index, result] : seen.listening.results)
        result.looped = 0;
}

/// A ruleset as nft prints it: a chain "c" of a hook, and its rules, to which {"chain": "lan"} may add
/// another chain.
std::string nft(const std::string& hook, const std::string& policy, const std::string& rules) {
    return R"({"nftables": [{"metainfo": {"version": "1.0.6", "json_schema_version": 1}},
        {"table": {"family": "ip", "name": "t", "handle": 1}}, {"chain": {"family": "ip", "table": "t", "name": "c",
        "handle": 1, "type": "filter", "hook": ")" +
           hook + R"(", "prio": 0, "policy": ")" + policy + "\"}}, " + rules + "]}";
}
std::string rule(const std::string& expressions, const std::string& chain = "c") {
    return R"({"rule": {"family": "ip", "table": "t", "chain": ")" + chain + R"(", "handle": 2, "expr": [)" +
           expressions + "]}}";
}
std::string match(const char* field, const char* operation, const std::string& right,
                  const std::string& protocol = "ip") {
    return R"({"match": {"op": ")" + std::string(operation) + R"(", "left": {"payload": {"protocol": ")" +
           protocol + R"(", "field": ")" + field + R"("}}, "right": )" + right + "}}, ";
}
const std::string kRadarGroups = R"({"prefix": {"addr": "236.6.0.0", "len": 16}})";
const std::string kDrop = R"({"drop": null})";

struct Case {
    const char* name;
    void (*change)(Observation&);
    std::vector<std::pair<Id, const char*>> expected; ///< findings, and a part of each one's texts
};
// clang-format off
const Case kCases[] = {
    {"NoInterface", [](Observation& s) { loseHosts(s); s.interfaces.clear(); s.listening.results.clear(); },
     {{Id::NoAddress, "no network interface"}}},
    {"NoEthernet", [](Observation& s) { loseHosts(s); s.interfaces[1].name = "can0"; s.interfaces[1].addresses.clear(); s.listening.results.erase(kEth1); },
     {{Id::NoRadar, "nobody answers"}}},
    {"ReversePathWithoutARoute", [](Observation& s) { s.listening.hosts.clear(); s.interfaces[0].rpFilter = 2; s.interfaces[0].name = "eth0.100";
         for (auto& [source, route] : s.routesToRadars) route = {"", ENETUNREACH}; },
     {{Id::RpFilter, "since its way back leads nowhere"}, {Id::RpFilter, "net.ipv4.conf.eth0/100.rp_filter=0"}}},
    {"LooseReversePathIsNoCause", [](Observation& s) { s.listening.hosts.clear(); s.interfaces[0].rpFilter = 2;
         for (auto& [source, route] : s.routesToRadars) route = {"eth1", 0}; },
     {{Id::NoRadar, "announcements reach this machine, and no program on it"}}},
    {"RouteOfAHost", [](Observation& s) { s.discoveryRoute = {"eth1", 0}; runHostHere(s); },
     {{Id::NoMulticastRoute, "ip route add 236.6.0.0/16 dev eth0"}, {Id::HostHere, "of both, the host and the displays here"}}},
    {"RouteOfAHostHeardOnBoth", [](Observation& s) { runHostHere(s); hear(s, "East", "192.168.1.7", 23, kEth1); },
     {{Id::TwoPaths, "eth0, eth1"}, {Id::HostHere, ""}}},
    {"RouteOfAHostWhereOneInterfaceWasLookedAt", [](Observation& s) { s.only = "eth0"; s.interfaces.pop_back(); s.discoveryRoute = {"eth1", 0}; runHostHere(s); },
     {{Id::HostHere, ""}}},
    {"ThoseWhoListenToBeaconsAreNoHosts", [](Observation& s) { s.socketsBefore = {negotiates(5, 0), negotiates(5, 0), hearsBeacons(5, 0), hearsBeacons(5, 0),
         negotiates(5, 70), hearsBeacons(5, 70)}; }, {}},
    {"HostBesideThem", [](Observation& s) { s.socketsBefore = {negotiates(5, 70), hearsBeacons(5, 71), negotiates(5, 72), hearsBeacons(5, 72)}; },
     {{Id::HostHere, ""}}},
    {"HostThatIsADisplayToo", [](Observation& s) { s.socketsBefore = {negotiates(5, 70, "bridge"), hearsBeacons(5, 70, "bridge")}; }, {{Id::HostHere, ""}}},
    {"RouteToOneGroupOfADisplay", [](Observation& s) { routeDiscovery(s, "eth1", "eth0"); }, {}},
    {"FirstRouteToAGroupIsTaken", [](Observation& s) { runHostHere(s); routeDiscovery(s, "eth0", "eth1"); }, {{Id::HostHere, ""}}},
    {"HostHereDoesNotLoop", [](Observation& s) { runHostHere(s); s.profile.multicastLoop = true; },
     {{Id::HostHere, "profile.ini of that host"}}},
    {"DisplaysHereDoNotLoop", [](Observation& s) { runHostHere(s); hear(s, "Own", "10.20.2.1", 22); },
     {{Id::HostHere, "profile.ini of displays here"}}},

    {"FirewallByEffect", [](Observation& s) { loseQueries(s); s.rules.error = "needs root"; },
     {{Id::Firewall, "as root"}, {Id::FirewallUnread, "needs root"}}},
    {"NftablesPolicy", [](Observation& s) { loseQueries(s);
         s.rules.nft = nft("input", "drop", R"({"chain": {"family": "ip", "table": "t", "name": "lan", "handle": 2}}, )" +
             rule(R"({"vmap": {"key": {"ct": {"key": "state"}}, "data": {"set": [["established", {"accept": null}], ["new", {"jump": {"target": "lan"}}]]}}})") + ", " +
             R"({"map": {"family": "ip", "table": "t", "name": "zones", "map": "verdict", "elem": [["lo", {"accept": null}], ["eth0", {"return": null}]]}}, )" +
             rule(R"({"vmap": {"key": {"meta": {"key": "iifname"}}, "data": "@zones"}})", "lan") + ", " +
             rule(R"({"match": {"op": "==", "left": {"payload": {"protocol": "udp", "field": "dport"}}, "right": 22}}, {"accept": null})", "lan")); },
     {{Id::Firewall, "nft insert rule ip t c ip daddr 236.6.0.0/16 accept"}}},
    {"NftablesReports", [](Observation& s) { s.rules.nft = nft("output", "accept", rule(match("protocol", "==", "\"igmp\"") + kDrop)); },
     {{Id::Firewall, "drops IGMP reports on eth0"}}},
    {"NftablesQueries", [](Observation& s) { loseHosts(s); s.rules.nft = nft("output", "accept", rule(match("daddr", "==", kRadarGroups) + kDrop));
         for (auto& [index, result] : s.listening.results) result = {.sendError = EPERM, .wire = true}; },
     {{Id::Firewall, "drops queries (236.6.7.5:6878) on eth0"}}},
    {"Redirected", [](Observation& s) { s.listening.hosts.clear();
         s.rules.nft = nft("prerouting", "accept", rule(match("saddr", "==", R"({"prefix": {"addr": "10.20.1.0", "len": 24}})") +
             R"({"mangle": {"key": {"payload": {"protocol": "udp", "field": "dport"}}, "value": 7777}})")); },
     {{Id::NoRadar, "announcements reach this machine, and no program on it"}}},
    {"RulesForForeignGroups", [](Observation& s) { s.rules.iptables = "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -d 239.0.0.0/8 -j DROP\nCOMMIT\n";
         s.rules.nft = nft("input", "accept", rule(match("daddr", "!=", kRadarGroups) + match("saddr", "!=", R"({"prefix": {"addr": "10.0.0.0", "len": 8}})") + kDrop)); }, {}},
    {"RulesForOtherProtocols", [](Observation& s) { s.rules.nft = nft("input", "accept", rule(match("dport", "!=", "22", "tcp") + kDrop) + ", " +
             rule(R"({"ct count": {"val": 1000, "inv": true}}, )" + kDrop) + ", " + rule(match("type", "!=", "\"echo-request\"", "icmp") + kDrop) + ", " + rule(match("saddr", "!=", "\"fe80::1\"", "ip6") + kDrop) + ", " +
             rule(match("dport", "!=", R"({"set": [6878, 6768, 6720]})", "udp") + kDrop)); }, {}},
    {"RuleForFlagsOfTcp", [](Observation& s) { loseQueries(s);
         s.rules.nft = nft("input", "accept", rule(R"({"match": {"op": "!=", "left": {"&": [{"payload": {"protocol": "tcp", "field": "flags"}}, "syn"]}, "right": "syn"}}, )" + kDrop)); },
     {{Id::Firewall, "look for the rule"}}},
    {"RuleForNoInterface", [](Observation& s) { s.rules.nft = nft("output", "accept", rule(R"({"match": {"op": "!=", "left": {"meta": {"key": "iifname"}}, "right": "lo"}}, )" + kDrop)); },
     {{Id::Firewall, "drops queries (236.6.7.5:6878), IGMP reports on eth0"}}},
    {"RuleForSeveralTypesOfAddress", [](Observation& s) { s.rules.iptables = "*filter\n:INPUT DROP [0:0]\n-A INPUT -m addrtype --dst-type BROADCAST,MULTICAST -j ACCEPT\nCOMMIT\n"; }, {}},
    {"IngressOfOneDevice", [](Observation& s) { s.rules.nft = nft("ingress", "accept", rule(match("daddr", "==", kRadarGroups) + kDrop));
         s.rules.nftText = "table ip t {\n\tchain c {\n\t\ttype filter hook ingress device \"eth1\" priority 0; policy accept;\n"; },
     {{Id::Firewall, "note nft rule ip t c handle 2 drops"}, {Id::Firewall, " on eth1; "}}},
    {"Egress", [](Observation& s) { loseQueries(s); s.rules.nft = nft("egress", "accept", rule(match("daddr", "==", kRadarGroups) + kDrop)); },
     {{Id::Firewall, "nft rule ip t c handle 2 drops queries (236.6.7.5:6878) on eth0, eth1; "}}},
    {"GroupsOfAUsersChoice", [](Observation& s) { s.rules.iptables = "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -d 239.1.2.3 -j DROP\nCOMMIT\n";
         s.rules.nft = nft("input", "accept", rule(match("daddr", "==", "\"239.1.2.4\"") + kDrop));
         for (auto& [host, heard] : s.listening.hosts) heard.image = {transAddr(host.name == "North" ? "239.1.2.3" : "239.1.2.4"), net::HtoNs(5000)}; },
     {{Id::Firewall, "-I INPUT -d 239.1.2.3 -j ACCEPT"}, {Id::Firewall, "ip daddr 239.1.2.4 accept"}}},
    {"RulesThatCannotBeRead", [](Observation& s) { loseQueries(s); s.rules.nft = "{"; },
     {{Id::FirewallUnread, "needs an nft whose JSON output can be read"}, {Id::Firewall, "look for the rule"}}},

    {"FewMemberships", [](Observation& s) { s.igmp.limit = 13; }, {{Id::MembershipLimit, "limit 13 a socket"}}},
    {"EnoughMemberships", [](Observation& s) { s.igmp.limit = 14; }, {}},
    {"ProfileAddress", [](Observation& s) { s.profile.error = 0; s.profile.localText = "10.9.9.9"; s.profile.localIp = transAddr("10.9.9.9"); },
     {{Id::ProfileAddress, "IP = 10.9.9.9"}}},
    {"ProfileNoAddress", [](Observation& s) { s.profile.error = 0; s.profile.localText = "eth0"; }, {{Id::ProfileAddress, "no IPv4 address"}}},
    {"ProfileOfAnInterfaceThatWasNotLookedAt", [](Observation& s) { s.only = "eth0"; s.interfaces.pop_back(); s.profile.error = 0; s.profile.localIp = transAddr("192.168.1.1");
         s.profile.localIsOurs = true; }, {}},
    {"ProfileInterface", [](Observation& s) { s.profile.error = 0; s.profile.netName = "eth7"; }, {{Id::ProfileInterface, "NetName = eth7"}}},
    {"ProfileInterfaceWithoutAddress", [](Observation& s) { s.profile.error = 0; s.profile.netName = "th1"; s.interfaces[1].addresses.clear(); s.listening.results.erase(kEth1); },
     {{Id::ProfileInterface, "names an interface that has no IPv4 address"}}},
    {"FixedRadarIsNoAddress", [](Observation& s) { s.profile.error = 0; s.profile.radarText = "radar"; },
     {{Id::FixedRadar, "it counts for nothing"}}},
    {"FixedRadarWithoutTcp", [](Observation& s) { s.profile.error = 0; s.profile.radarText = "10.20.1.1"; s.profile.radarIp = transAddr("10.20.1.1"); },
     {{Id::FixedRadar, "set [Radar] TCPService = true"}}},

    {"QueryThatNobodyNeeds", [](Observation& s) { s.listening.results[kEth1].sendError = ENOKEY; }, {{Id::QueryNotSent, "note the system refuses to send a query through eth1"}}},
    {"FollowedNobody", [](Observation& s) { s.image = ImageSeen{.radar = "Nroth", .interface = {}}; },
     {{Id::NoImage, "warning no radar \"Nroth\" is there to be followed; there are: North and South"}}},
    {"FollowedTooLate", [](Observation& s) { s.image = ImageSeen{.radar = "North", .interface = {}}; }, {{Id::NoImage, "unchecked could not check: \"North\" was not found in time"}}},
    {"FollowedUntilItLeft", [](Observation& s) { s.image = ImageSeen{.radar = "North", .interface = "eth0", .datagrams = 9, .isSilent = true, .hasLeft = true, .followed = 5s}; },
     {{Id::NoImage, "warning \"North\" has left, and its image does not come any more; look whether it is switched on"}}},
    {"FollowedInTime", [](Observation& s) { s.image = ImageSeen{.radar = "North", .interface = "eth0", .datagrams = 9, .followed = 1s}; }, {}},

    {"SameId", [](Observation& s) { hear(s, "No'rth", "10.20.1.0", 21); },
     {{Id::SameId, "\"No'rth\" (10.20.1.0) and \"South\" (10.20.1.2) hold one host id"}, {Id::SameId, "radarctl renumber 'No'\\''rth':"}}},
    {"OwnAddressSeenOnTheWire", [](Observation& s) { s.ownHardware = {"02::1"}; s.listening.hardware[{kEth0, transAddr("10.20.2.1")}] = {"02::1"};
         s.listening.hardware[{kEth0, transAddr("10.20.1.1")}] = {"02::2"}; }, {}},
    {"LateAnswers", [](Observation& s) { hear(s, "Slow", "10.20.1.3", 0, kEth0, 3500ms); },
     {{Id::LateAnswers, "\"Slow\" (10.20.1.3) answers so late that a display's search"}}},
    {"AnswersInTime", [](Observation& s) { hear(s, "Slow", "10.20.1.3", 0, kEth0, 1900ms); }, {}},
    {"ForgottenByThen", [](Observation& s) { s.listening.duration = 20s; hear(s, "Slow", "10.20.1.3", 0, kEth0, 8s); },
     {{Id::LateAnswers, "displays have forgotten it by then"}}},
    {"LostAnswers", [](Observation& s) { hear(s, "East", "10.20.1.3", 23, kEth0, 5ms, 2); }, {{Id::LostAnswers, "\"East\" (10.20.1.3) answers only some of the queries"}}},
    {"QueriesBeforeTheFirstAnswerDoNotCount", [](Observation& s) { auto& north = s.listening.hosts.begin()->second.times; north.erase(north.begin(), north.begin() + 2); },
     {}},
    {"SwitchThatForgetsAFollowedImage", [](Observation& s) { s.image = ImageSeen{.radar = "North", .interface = "eth0", .datagrams = 9, .forgotten = 1, .followed = 5s}; },
     {{Id::SwitchForgets, "the image of \"North\""}, {Id::SwitchForgets, "joined again: 1"}}},
    {"ObjectionThatSettlesIt", [](Observation& s) { s.listening.objections[20] = 1; s.listening.claims[transAddr("10.20.1.1")] = {20}; }, {}},
};
// clang-format on

TEST(Judgement, NamesTheCauseAndNoOther) {
    for (const Case& row : kCases) {
        SCOPED_TRACE(row.name);
        Observation seen = healthy();
        row.change(seen);
        std::map<Id, std::string> found;
        for (const Finding& finding : judge(seen).findings)
            found[finding.id] += word(finding.severity) + (" " + finding.what) + "; " + finding.remedy +
                                 "; " + finding.measured + "\n";
        for (const auto& [id, part] : row.expected)
            EXPECT_THAT(found[id], testing::HasSubstr(part));
        for (const auto& [id, texts] : found)
            EXPECT_TRUE(std::ranges::any_of(row.expected, [id = id](const auto& each) {
                return each.first == id;
            })) << texts;
    }
}

TEST(Judgement, HostHereComesFirstWhereNothingElseIsHeard) {
    Observation seen = healthy();
    runHostHere(seen);
    seen.interfaces[1].carrier = false;
    EXPECT_FALSE(judge(seen).findings[0].isComplaint()) << "others are heard";
    loseHosts(seen);
    EXPECT_EQ(judge(seen).findings[0].id, Id::HostHere);
    EXPECT_TRUE(judge(seen).findings[0].isComplaint());
}

TEST(Judgement, MisspeltProfileKeysAreNamedAndThoseOfOthersLeft) {
    const std::pair<const char*, const char*> rows[] = {
        {"[Local]\nNetNam = eth0", "NetName?"},
        {"[Locale] ; ours\n NetName : eth0", "[Local]?"},
        {"[Radar]\nMulticastLoop = true", "[Local]?"},
        {"[radar]\nTCP_Service = true\n", "TCPService?"},
        {"\xEF\xBB\xBF[LOCAL]\r\nip = 1.2.3.4\r\nnetname=\r\n[Radar]\nIP=\nTcpService=0\n", ""},
        {"[Window]\nIP = 10.1.1.1\nwidth = 5\n[Locale]\nlanguage = de\n# NetNam = x\n", ""},
    };
    for (const auto& [text, expected] : rows) {
        Observation seen;
        seen.profile.entries = profileEntries(text);
        const Findings findings = judgeProfileKeys(seen).findings;
        EXPECT_EQ(findings.empty() ? "" : findings[0].remedy, expected) << text;
    }
}

TEST(DoctorRedaction, ReplacesAddressesAndNamesTheSameWayEverywhere) {
    Redaction redaction;
    std::setlocale(LC_CTYPE, "C.UTF-8"); // as radarctl has it
    redaction.radarName("North");
    for (const char* name : {"radar-1", "North mast", "S\u00fcd \"\x1b", "2"})
        redaction.radarName(name);
    const std::pair<const char*, const char*> cases[] = {
        {"North at 10.20.1.1, Northern", "radar-1 at 10.1.2.1, Northern"},
        {"radar-1, North mast, North, 2", "radar-2, radar-3, radar-1, radar-5"},
        {"S\u00fcd \"\\x1B, S\u00fcd", "radar-4, S\u00fcd"},
        {"10.20.1.7/16 and 10.20.9.1 are near, 192.168.0.1 is not",
         "10.1.2.7/16 and 10.1.3.1 are near, 10.4.5.1 is not"},
        {"236.6.7.5 127.0.0.1 255.255.0.0 0.0.0.0", "236.6.7.5 127.0.0.1 255.255.0.0 0.0.0.0"},
        {"aa:bb:cc:dd:ee:ff and fe80::1, aa:bb:cc:dd:ee:ff",
         "02:00:00:00:00:01 and fd00::0:2, 02:00:00:00:00:01"},
        {"1.0.0 at 12:30:59", "1.0.0 at 12:30:59"},
    };
    for (const auto& [before, after] : cases)
        EXPECT_EQ(redaction.text(before), after);
    const std::string redacted = redaction.message(protocol::composeAnnouncement("North", 20, 2));
    EXPECT_EQ(redacted, protocol::composeAnnouncement("radar-1", 20, 2));
}

} // namespace
