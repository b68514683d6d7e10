#include "radarctl_fixture.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/protocol/wire.h>

namespace {

struct Host {
    const char* node;
    const char* name;
    std::uint8_t id;
};

// of looking: three queries, and time enough behind a pause of the machine
constexpr const char* kSeconds = "1.2";

/// How a network is broken, and the findings that doctor must report. There is a row for each thing that is
/// looked at; doctor_judgement_test has what else may follow from it.
struct Case {
    const char* name;
    const char* breakage;                                      ///< shell commands where doctor runs
    std::vector<std::pair<std::string, std::string>> expected; ///< finding and a part of its texts
    const char* profile = "";
    std::vector<Host> hosts = {{"host1", "North", 20}, {"host2", "South", 21}};
    const char* node = "display";          ///< where doctor runs; at a host, beside a radar host's sockets
    std::vector<std::string> through = {}; ///< command that runs doctor
};
void PrintTo(const Case& row, std::ostream* stream) {
    *stream << row.name;
}

class Doctor : public Radarctl, public testing::WithParamInterface<Case> {
protected:
    Doctor()
        : Radarctl({lab::display(2),
                    lab::radarHost(1),
                    {"host2", {{"10.20.1.2/16"}, {"192.168.9.1/24", lab::Leads::Nowhere}}, true}},
                   "") {}
    lab::Process look(const char* node, const Words& arguments, Words command = {},
                      const char* seconds = kSeconds) {
        command.insert(command.end(), {RADARCTL, "doctor", "--seconds", seconds});
        command.insert(command.end(), arguments.begin(), arguments.end());
        return m_lan.node(node).start({.command = command, .errorFile = "/dev/null"});
    }
    lab::Process follow(const char* name, const char* seconds) {
        return start("display", {"doctor", "--interface", "eth0", "--follow", name, "--seconds", seconds});
    }
    struct Found {
        std::vector<std::string> remedies;
        std::string wrong; ///< what is complained of and not expected, or expected and not found
    };
    static Found resultOf(lab::Process& doctor, const decltype(Case::expected)& expected) {
        const std::optional<int> status = doctor.wait(60s);
        const nlohmann::json document = nlohmann::json::parse(doctor.output());
        Found found;
        std::map<std::string, std::string> texts;
        for (const nlohmann::json& finding : document.at("findings")) {
            const std::string id = finding.at("id");
            const std::string remedy = finding.at("remedy");
            texts[id] += finding.at("what").get<std::string>() + "; " + remedy + "; " +
                         finding.at("measured").get<std::string>();
            if (finding.at("severity") != "fault" && finding.at("severity") != "warning")
                continue;
            found.remedies.push_back(remedy);
            if (std::ranges::none_of(expected, [&](const auto& row) { return row.first == id; }))
                found.wrong += finding.dump() + "\n";
        }
        for (const auto& [id, part] : expected)
            if (texts[id].find(part) == std::string::npos)
                found.wrong += id + " is \"" + texts[id] + "\", without \"" + part + "\"\n";
        EXPECT_EQ(status, found.remedies.empty() ? 0 : 1);
        return found;
    }
    /// Looks quickly, and where the machine pauses meanwhile once more and longer. @return the remedies
    std::vector<std::string> remediesFor(const decltype(Case::expected)& expected, const char* node,
                                         const Words& through = {}) {
        const auto find = [&](const char* seconds) {
            lab::Process doctor = look(node, {"--json"}, through, seconds);
            return resultOf(doctor, expected);
        };
        Found found = find("0.5");
        if (!found.wrong.empty())
            found = find("2.5");
        EXPECT_EQ(found.wrong, "");
        return found.remedies;
    }
};

TEST_P(Doctor, ReportsTheCauseAndNoOther) {
    const Case& row = GetParam();
    if (*row.profile != '\0')
        m_profile.write(row.profile);
    std::vector<std::unique_ptr<HostServer>> hosts;
    for (const Host& host : row.hosts)
        hosts.push_back(serve(host.node, host.name, host.id));
    const lab::Node& node = m_lan.node(row.node);
    std::unique_ptr<HostNegotiator> negotiator; // doctor takes a computer with one for a radar host
    if (node.name() != "display")
        negotiator = makeIn<HostNegotiator>(node, nullptr, nullptr);
    // Processes that the commands leave running end with this one.
    lab::Process breakage =
        node.start({.command = {"sh", "-ec", std::string(row.breakage) + "\necho broken; sleep 60"}});
    ASSERT_TRUE(breakage.lineWith("broken", 30s)) << breakage.output();

    const std::vector<std::string> remedies = remediesFor(row.expected, row.node, row.through);
    if (remedies.size() != 1 || !row.through.empty())
        return;
    const std::string cure = remedies[0].substr(0, remedies[0].find(", ")); // where it is a command
    constexpr const char* kCommands[] = {"nft ", "iptables", "sysctl ", "ip link ", "ip route del "};
    if (std::ranges::none_of(kCommands, [&](const char* command) { return cure.starts_with(command); }))
        return;
    lab::Process healer = node.start({.command = {"sh", "-ec", cure}});
    ASSERT_EQ(healer.wait(30s), 0) << cure << "\n" << healer.output();
    remediesFor({}, row.node);
}

// clang-format off
constexpr const char* kDropRule = "nft add table ip filter; nft add chain ip filter input '{ type filter hook input priority 0; policy accept; }';"
                                  "nft add rule ip filter input iifname eth0 udp dport '{ 1000, 6800-6900 }' drop";
const std::vector<std::string> kUnprivileged{"setpriv", "--bounding-set", "-all", "--inh-caps", "-all"};
// strace injects failures that no set-up can cause; a leak checker cannot run under it. The first four sendto calls
// list the interfaces.
const Case kCases[] = {
    {"NoAddress", "ip address flush dev eth0", {{"no-address", "eth0 has no IPv4 address"}}},
    {"WrongNetmask", "ip address flush dev eth0; ip address add 192.168.77.1/24 dev eth0", {{"wrong-subnet", "outside the network of eth0"}}},
    {"TwoPaths", "ip address flush dev eth1; ip address add 10.20.2.9/16 dev eth1; ip -n lan link set display-eth1 master lan0",
     {{"two-paths", "eth0, eth1"}}},
    {"InterfaceOff", "ip link set eth0 down", {{"interface-down", "ip link set eth0 up"}}},
    {"MulticastFlag", "ip link set eth0 multicast off", {{"no-multicast", "ip link set eth0 multicast on"}}},
    {"ReversePath", "ip route add 10.20.1.0/24 dev eth1; echo 1 > /proc/sys/net/ipv4/conf/eth0/rp_filter",
     {{"rp-filter", "what 10.20.1.1 sends through eth0, since its way back leads through eth1"}}},
    {"NftablesRule", kDropRule, {{"firewall", "nft rule ip filter input handle 3 drops queries and announcements (236.6.7.5:6878)"},
                                 {"firewall", "own queries did not come back"}}},
    {"IptablesRule", "iptables -N radar; iptables -A INPUT -p udp -m comment --comment 'no radar' -j radar; iptables -A radar -p udp -d 236.6.0.0/16 -m multiport --dports 6000:7000 -j DROP",
     {{"firewall", "-A radar -d 236.6.0.0/16 -p udp"}}},
    {"PortTaken", "socat -u UDP4-RECV:6878 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done", {{"port-taken", "socat (process"}}},
    {"NoMemberships", "echo 0 > /proc/sys/net/ipv4/igmp_max_memberships", {{"membership-limit", "refuses to join"}}},
    {"SlowProgram", "socat -u UDP4-RECV:6878,reuseaddr,rcvbuf=2304,ip-add-membership=236.6.7.5:10.20.2.1 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done; kill -STOP $!",
     {{"socket-drops", "port 6878"}}},
    // The receive buffer's limit cannot be set in a namespace.
    {"RefusedBySystem", "", {{"query-not-sent", "refuses to send a query through eth0; look at the address and the routes of eth0; Network is down"},
                             {"receive-buffer", "rmem_max=262144; 10 KiB granted of 256 KiB"}}, "", {{"host1", "North", 20}}, "display",
     {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", "--inject=sendto:error=ENETDOWN:when=5+", "--inject=getsockopt:poke_exit=@arg4=00500000"}},
    {"ProfileIsAFifo", "mkfifo $INIPROFILE_DIR/profile.ini", {{"profile-unreadable", "put a file in its place; it is a FIFO"}}},
    {"ProfileNamesTheWrongInterface", "", {{"wrong-interface", "to 192.168.1.1, and the radars are on another interface; set [Local] IP to 10.20.2.1"}},
     "[Local]\nNetName = eth1\n"},
    {"ProfileNamesAnAddressAsPeopleWriteIt", "", {{"wrong-interface", "to 192.168.1.1, and the radars are on another interface"}}, "[Local]\nIP = 192.168.1.01 lan\n"},
    {"ProfileFixesASilentRadar", "", {{"fixed-radar", "10.20.1.2, which does not answer TCP port 6878"}}, "[Radar]\nIP = 10.20.1.2\n"},
    {"HostWithoutRoute", "ip route del default", {{"no-multicast-route", "ip route add 236.6.0.0/16"}, {"host-here", "MulticastLoop = true"}}, "", {{"host2", "South", 21}}, "host1"},
    {"RecorderWithoutRoute", RADARCTL " record --interface eth0 -o $INIPROFILE_DIR/file & until grep -q :1A40 /proc/net/udp; do :; done", {}},
    {"LeftOverRoutes", "for group in 236.6.7.5 236.6.7.4; do ip route prepend $group dev eth1; done",
     {{"left-over-route", "instead of eth0"}, {"left-over-route", "ip route del 236.6.7.4 dev eth1 && ip route del 236.6.7.5 dev eth1"}}, "",
     {{"host1", "North", 20}, {"host2", "South", 21}}, "host2"},
    {"TinyMtuOldIgmpAndProfileKey", "ip link set eth0 down; ip link set eth0 name enx021122334455; ip link set enx021122334455 up mtu 100;"
     "echo 1 > /proc/sys/net/ipv4/conf/enx021122334455/force_igmp_version",
     {{"small-mtu", "up to 100 bytes, so announcements and streams may not come through; ip link set enx021122334455 mtu 1500"}, {"igmp-version", "enx021122334455: V1"},
      {"profile-key", "MulticastLop, which the library does not read; MulticastLoop?"}}, "[Local]\nMulticastLop = true\n"},
    {"IgmpQueries", "nft add table ip t; nft add chain ip t in '{ type filter hook input priority 0; policy drop; }'; nft add rule ip t in ip daddr 236.6.0.0/16 accept",
     {{"firewall", "nft chain ip t in drops IGMP queries on eth0, eth1, so a switch that snoops takes the radars away after minutes; nft insert rule ip t in ip protocol igmp accept"}}},
    {"IgmpQueriesByType", "nft add table inet t; nft add chain inet t in '{ type filter hook input priority 0; }'; nft add rule inet t in igmp type '{ membership-query, membership-report-v1 }' drop",
     {{"firewall", "handle 3 drops IGMP queries"}}},
    {"IptablesIgmp", "iptables -A INPUT -d 224.0.0.0/24 -j DROP", {{"firewall", "iptables -t filter -I INPUT -p igmp -j ACCEPT"}}},
    {"LegacyPolicy", "iptables-legacy -P INPUT DROP",
     {{"firewall", "policy of iptables-legacy chain INPUT (table filter) drops queries and announcements (236.6.7.5:6878)"}, {"firewall", "IGMP queries"}}},
    {"Netdev", "nft add table netdev t; nft add chain netdev t in '{ type filter hook ingress device \"eth0\" priority 0; }'; nft add rule netdev t in udp dport 6878 drop",
     {{"firewall", "nft rule netdev t in handle 2 drops queries and announcements (236.6.7.5:6878) on eth0; "}}},
    {"Nobody", "ip address flush dev eth1; ip link add link eth1 name above type macvlan; ip address add 192.168.1.1/24 dev above; ip link set above up",
     {{"no-radar", "nobody answers"}, {"no-querier", "no IGMP query"}}, "", {}},
    {"OneIdAndOneName", "", {{"same-id", "radarctl renumber 'North'"}, {"same-name", "give each a name"}}, "",
     {{"host1", "North", 20}, {"host2", "South", 20}, {"host2", "North", 21}}},
    {"ContestedIdsAndAnotherDisplay",
     R"(send() { ip netns exec $1 sh -c "printf '$2' | socat -u - UDP-DATAGRAM:$3"; }
        for i in $(seq 300); do
            for id in 036 037; do send host1 "\\001\\241\\$id\\001" 236.6.7.4:6768; send host2 "\\003\\241\\$id\\001" 236.6.7.4:6768; done
            send host2 '\001\261' 236.6.7.5:6878
        done > /dev/null 2>&1 &)",
     {{"id-contest", "10.20.1.1 claimed 2 ids"}, {"other-display", "queries from 10.20.1.2"}}, "", {{"host1", "North", 20}}},
    {"HostsWithOneAddress", "ip -n host2 address flush dev eth0; ip -n host2 address add 10.20.1.1/16 dev eth0; ip -n host2 route add default dev eth0",
     {{"same-address", "radar hosts at eth0 share the address 10.20.1.1; give each an address of its own"}}},
    {"ComputerWithThisOnesAddress", "ip -n host2 address add 10.20.2.1/16 dev eth0",
     {{"same-address", "another computer at eth0 has this one's address 10.20.2.1; give each"}}},
    {"HardwareAddressesWithoutPrivileges", "for i in $(seq 1200); do ip neigh replace 10.20.1.1 dev eth0 lladdr 02:00:00:00:00:0$((i % 2)); sleep 0.05; done &",
     {{"same-address", "10.20.1.1 belongs to 02:00:00:00:00:00, 02:00:00:00:00:01"}, {"firewall-unread", "to read the packet filter; sudo radarctl doctor"}, {"wire-unread", "(CAP_NET_RAW)"}}, "",
     {{"host1", "North", 20}}, "display", kUnprivileged},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Lab, Doctor, testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST_F(Doctor, OneComputerIsEnoughForHostAndDisplay) {
    m_profile.write("[Local]\nIP = 10.20.1.1\n");
    const lab::Process host =
        start("host1", {"host", "--name", "North", "--streams", "2", "--simulate", "--loop"});
    lab::Process listen =
        start("host1", {"listen", "North", "1", "--endpoint", "arpa", "--seconds", "1", "--loop"});
    EXPECT_TRUE(listen.lineWith("listening to arpa", 60s));
    lab::Process told = look("host1", {"--loop"});
    EXPECT_EQ(listen.wait(60s), 0) << listen.output();
    EXPECT_EQ(told.wait(60s), 0) << told.output();
}

TEST_F(Doctor, FollowsByTheNameThatIsShownAndSaysWhereNoImageComes) {
    const auto imageless = serve("host1", "N\x1B", 20);
    lab::Process doctor = follow("N\\x1B", "4");
    EXPECT_EQ(doctor.wait(60s), 1);
    EXPECT_THAT(doctor.output(),
                AllOf(StartsWith("warning no-image"), HasSubstr("\"N\\x1B\" announces itself"),
                      HasSubstr("measured: on eth0, 0 datagrams")));
}

} // namespace
