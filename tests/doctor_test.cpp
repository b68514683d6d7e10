#include "profile_directory.h"
#include "wait.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <lab/lan.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <list>
#include <ostream>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

struct Host {
    const char* node;
    const char* name;
    std::uint8_t id;
};

constexpr const char* kSeconds =
    "2"; // of looking: five queries, and time enough behind a pause of the machine

/// How the display's network, or a host, is broken, and the findings that doctor must report. There is a row
/// for each thing that is looked at; doctor_judgement_test has what else may follow from it.
struct Case {
    const char* name;
    const char* breakage;                                      ///< shell commands on the display
    std::vector<std::pair<std::string, std::string>> expected; ///< finding and a part of its text
    const char* profile = "";
    std::vector<Host> hosts = {{"host1", "North", 20}, {"host2", "South", 21}};
    const char* node = "display";          ///< where doctor runs
    std::vector<std::string> through = {}; ///< command that runs doctor
    const char* cure =
        ""; ///< shell commands on the display, where the remedy itself is none: they end the first finding
};
void PrintTo(const Case& row, std::ostream* stream) {
    *stream << row.name;
}

class Doctor : public testing::TestWithParam<Case> {
protected:
    void serve(const std::vector<Host>& hosts) {
        for (const Host& host : hosts) {
            const lab::Inside inside = m_lan.node(host.node).enter();
            m_hosts.emplace_back(host.name, host.id, 1U);
        }
    }
    void shell(const std::string& commands) {
        lab::Process process = m_lan.node("display").start({.command = {"sh", "-ec", commands}});
        ASSERT_EQ(process.wait(30s), 0) << process.output();
    }
    lab::Process start(const char* node, std::vector<std::string> arguments,
                       std::vector<std::string> command = {}) {
        command.insert(command.end(), {RADARCTL, "doctor"});
        command.insert(command.end(), arguments.begin(), arguments.end());
        return m_lan.node(node).start({.command = command, .errorFile = "/dev/null"});
    }

    using Expected = std::vector<std::pair<std::string, std::string>>;
    static nlohmann::json findingsOf(lab::Process& doctor, const Expected& expected) {
        const std::optional<int> status = doctor.wait(60s);
        const nlohmann::json document = nlohmann::json::parse(doctor.output());
        bool hasProblem = false;
        std::map<std::string, std::string> found;
        for (const nlohmann::json& finding : document.at("findings")) {
            const std::string id = finding.at("id");
            const bool isProblem = finding.at("severity") == "fault" || finding.at("severity") == "warning";
            hasProblem = hasProblem || isProblem;
            found[id] += finding.at("what").get<std::string>() + "; " +
                         finding.at("remedy").get<std::string>() + "; " +
                         finding.at("measured").get<std::string>();
            const bool isExpected = std::ranges::count(expected, id, &Expected::value_type::first) != 0;
            EXPECT_TRUE(isExpected || !isProblem) << finding;
        }
        for (const auto& [id, part] : expected)
            EXPECT_THAT(found[id], HasSubstr(part)) << document.dump(2);
        EXPECT_EQ(status, hasProblem ? 1 : 0);
        return document;
    }

    const ProfileDirectory m_profile;
    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2), lab::display(2)}};
    std::list<HostServer> m_hosts;
};

TEST_P(Doctor, ReportsTheCauseAndNoOther) {
    const Case& row = GetParam();
    if (*row.profile != '\0')
        m_profile.write(row.profile);
    serve(row.hosts);
    std::unique_ptr<HostNegotiator> negotiator;
    if (std::string_view(row.node) == "host1") {
        const lab::Inside inside = m_lan.node("host1").enter();
        negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
    }
    // Processes that the commands leave running end with this one.
    lab::Process breakage = m_lan.node("display").start(
        {.command = {"sh", "-ec", std::string(row.breakage) + "\necho broken; sleep 60"}});
    ASSERT_TRUE(breakage.lineWith("broken", 30s)) << breakage.output();

    lab::Process doctor = start(row.node, {"--json", "--seconds", kSeconds}, row.through);
    const nlohmann::json document = findingsOf(doctor, row.expected);
    std::string cure = row.cure;
    if (cure.empty() && document["findings"].size() == 1 && row.through.empty()) {
        const std::string remedy = document["findings"][0].at("remedy");
        const std::string command = remedy.substr(0, remedy.find(", "));
        constexpr const char* kCommands[] = {"nft ", "iptables ", "sysctl ", "ip link "};
        if (std::ranges::any_of(kCommands, [&](const char* start) { return command.starts_with(start); }))
            cure = command;
    }
    if (cure.empty())
        return;
    SCOPED_TRACE(cure);
    shell(cure);
    lab::Process cured = start(row.node, {"--json", "--seconds", kSeconds});
    const nlohmann::json left = findingsOf(cured, {});
    for (const nlohmann::json& finding : left["findings"])
        EXPECT_NE(finding["id"], row.expected[0].first) << "does not help";
}

// clang-format off
constexpr const char* kDropRule = "nft add table ip filter; nft add chain ip filter input '{ type filter hook input priority 0; policy accept; }';"
                                  "nft add rule ip filter input iifname eth0 udp dport '{ 1000, 6800-6900 }' drop";
const std::vector<std::string> kUnprivileged{"setpriv", "--bounding-set", "-all", "--inh-caps", "-all"};
// strace injects failures that no set-up can cause; a leak checker cannot run under it. The first four sendto calls
// list the interfaces.
const std::vector<Host> kHosts{{"host1", "North", 20}, {"host2", "South", 21}};
constexpr const char* kEndSocat = "kill -KILL $(cat /run/socat)";
const Case kCases[] = {
    {"CutCable", "ip -n lan link set display-eth0 down", {{"no-carrier", "eth0 has no carrier"}}, "", kHosts, "display", {}, "ip -n lan link set display-eth0 up"},
    {"NoAddress", "ip address flush dev eth0", {{"no-address", "eth0 has no IPv4 address"}}, "", kHosts, "display", {}, "ip address add 10.20.2.1/16 dev eth0"},
    {"WrongNetmask", "ip address flush dev eth0; ip address add 192.168.77.1/24 dev eth0", {{"wrong-subnet", "outside the network of eth0"}}, "", kHosts, "display", {},
     "ip address replace 10.20.2.1/16 dev eth0"},
    {"TwoPaths", "ip address flush dev eth1; ip address add 10.20.2.9/16 dev eth1; ip -n lan link set display-eth1 master lan0",
     {{"two-paths", "eth0, eth1"}}, "", kHosts, "display", {}, "printf '[Local]\nIP = 10.20.2.1\n' >$INIPROFILE_DIR/profile.ini"},
    {"LostAnswers", "ip netns exec lan nft 'add table bridge t; add chain bridge t c { type filter hook forward priority 0; };"
                    "add rule bridge t c oifname display-eth0 ip saddr 10.20.1.1 udp dport 6878 numgen inc mod 2 0 drop'",
     {{"lost-answers", "\"North\" (10.20.1.1) answers only some"}}, "", kHosts, "display", {}, "ip netns exec lan nft delete table bridge t"},
    {"InterfaceOff", "ip link set eth0 down", {{"interface-down", "ip link set eth0 up"}}},
    {"MulticastFlag", "ip link set eth0 multicast off", {{"no-multicast", "ip link set eth0 multicast on"}}},
    {"ReversePath", "ip route add 10.20.1.0/24 dev eth1; echo 1 > /proc/sys/net/ipv4/conf/eth0/rp_filter",
     {{"rp-filter", "what 10.20.1.1 sends through eth0, since its way back leads through eth1"}}},
    {"Unprivileged", "ip route add 10.20.1.0/24 dev eth1; echo 1 > /proc/sys/net/ipv4/conf/eth0/rp_filter",
     {{"rp-filter", "rp_filter 1 on eth0"}, {"firewall-unread", "could not check: needs root"}, {"wire-unread", "could not check: needs root"}},
     "", {{"host1", "North", 20}}, "display", kUnprivileged},
    {"NftablesRule", kDropRule, {{"firewall", "nft rule ip filter input handle 3 drops queries and announcements (236.6.7.5:6878)"},
                                 {"firewall", "own queries did not come back"}}},
    {"IptablesRule", "iptables -N radar; iptables -A INPUT -p udp -m comment --comment 'no radar' -j radar; iptables -A radar -p udp -d 236.6.0.0/16 -m multiport --dports 6000:7000 -j DROP",
     {{"firewall", "-A radar -d 236.6.0.0/16 -p udp"}}},
    {"PortTaken", "socat -u UDP4-RECV:6878 /dev/null & echo $! >/run/socat; until grep -q :1ADE /proc/net/udp; do :; done", {{"port-taken", "socat (process"}}, "", kHosts, "display", {},
     kEndSocat},
    {"NoMemberships", "echo 0 > /proc/sys/net/ipv4/igmp_max_memberships", {{"membership-limit", "refuses to join"}}},
    {"SlowProgram", "socat -u UDP4-RECV:6878,reuseaddr,rcvbuf=2304,ip-add-membership=236.6.7.5:10.20.2.1 /dev/null & echo $! >/run/socat; until grep -q :1ADE /proc/net/udp; do :; done; kill -STOP $!",
     {{"socket-drops", "port 6878"}}, "", kHosts, "display", {}, kEndSocat},
    // The receive buffer's limit cannot be set in a namespace.
    {"RefusedBySystem", "", {{"query-not-sent", "refuses to send a query through eth0; look at the address and the routes of eth0; Network is down"},
                             {"receive-buffer", "rmem_max=262144; 10 KiB granted of 256 KiB"}}, "", {{"host1", "North", 20}}, "display",
     {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", "--inject=sendto:error=ENETDOWN:when=5+", "--inject=getsockopt:poke_exit=@arg4=00500000"}},
    {"OldIgmp", "echo 1 > /proc/sys/net/ipv4/conf/eth0/force_igmp_version", {{"igmp-version", "eth0: V1"}}},
    {"ProfileIsADirectory", "mkdir $INIPROFILE_DIR/profile.ini", {{"profile-unreadable", "put a file in its place; Is a directory"}}, "", kHosts, "display", {}, "rmdir $INIPROFILE_DIR/profile.ini"},
    {"ProfileIsAFifo", "mkfifo $INIPROFILE_DIR/profile.ini", {{"profile-unreadable", "put a file in its place; it is a FIFO"}}, "", kHosts, "display", {}, "rm $INIPROFILE_DIR/profile.ini"},
    {"ProfileNamesTheWrongInterface", "", {{"wrong-interface", "to 192.168.1.1, and the radars are on another interface; set [Local] IP to 10.20.2.1"}},
     "[Local]\nNetName = eth1\n", kHosts, "display", {}, "printf '[Local]\nIP = 10.20.2.1\n' >$INIPROFILE_DIR/profile.ini"},
    {"ProfileNamesNoInterface", "", {{"profile-interface", "NetName = eth7"}}, "[Local]\nNetName = eth7\n", kHosts, "display", {}, "sed -i s/eth7/eth0/ $INIPROFILE_DIR/profile.ini"},
    {"ProfileNamesAForeignAddress", "", {{"profile-address", "IP = 10.9.9.9"}}, "[Local]\nIP = 10.9.9.9\n", kHosts, "display", {}, "sed -i s/10.9.9.9/10.20.2.1/ $INIPROFILE_DIR/profile.ini"},
    {"ProfileFixesASilentRadar", "", {{"fixed-radar", "10.20.1.2, which does not answer TCP port 6878"}}, "[Radar]\nIP = 10.20.1.2\n", kHosts, "display", {}, "sed -i /IP/d $INIPROFILE_DIR/profile.ini"},
    {"HostWithoutRoute", "ip -n host1 route del default", {{"no-multicast-route", "ip route add 236.6.0.0/16"}, {"host-here", "MulticastLoop = true"}}, "", {{"host2", "South", 21}}, "host1", {},
     "ip -n host1 route add 236.6.0.0/16 dev eth0"},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Lab, Doctor, testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST_F(Doctor, ReportsNoProblemInAHealthyNetwork) {
    serve({{"host1", "\x1b[2JNorth", 20}, {"host2", "South", 1}});
    lab::Process doctor = start("display", {"--seconds", kSeconds});
    EXPECT_EQ(doctor.wait(30s), 0);
    EXPECT_THAT(doctor.output(),
                testing::AllOf(testing::StartsWith("looked at:\n"),
                               HasSubstr("\"\\x1B[2JNorth\" (10.20.1.1): host id 20, through eth0,"),
                               HasSubstr("\"South\" (10.20.1.2): host id 1, through eth0,"),
                               testing::EndsWith("nothing to complain about\n")));
}

TEST_F(Doctor, FollowsHostsUntilEachHasAnIdAndANameOfItsOwn) {
    const auto expect = [this](const std::vector<Host>& hosts, const Expected& expected) {
        m_hosts.clear();
        serve(hosts);
        lab::Process doctor = start("display", {"--json", "--seconds", kSeconds});
        findingsOf(doctor, expected);
    };
    expect({}, {{"no-radar", "nobody answers"}, {"no-querier", "no IGMP query"}});
    expect({{"host1", "North", 20}, {"host2", "South", 20}}, {{"same-id", "radarctl renumber 'North'"}});
    expect({{"host1", "North", 20}, {"host2", "North", 21}}, {{"same-name", "give each a name"}});
    expect({{"host1", "North", 20}, {"host2", "South", 21}}, {});
}

/// Objects to every claim of a host id.
class Objector final : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        std::string message(data, static_cast<std::size_t>(length));
        if (wire::hasCode(message, wire::kProbe)) {
            message.replace(0, 2, wire::text(wire::kObjection));
            m_sender.sendData(message.data(), length);
        }
    }

private:
    net::UdpSender m_sender{wire::kNegotiation.address, wire::kNegotiation.port, 0, 0};
    net::UdpReceiver m_receiver{this, 0, wire::kNegotiation.address, wire::kNegotiation.port, 1024};
};

TEST_F(Doctor, ReportsOtherDisplaysAndContestedIds) {
    net::detail::Timing timing;
    timing.objection = 200ms;
    net::detail::setTiming(timing);
    serve({{"host1", "North", 20}});
    std::optional<HostNegotiator> negotiator;
    {
        const lab::Inside inside = m_lan.node("host1").enter();
        negotiator.emplace(nullptr, nullptr);
    }
    std::optional<Objector> objector;
    std::optional<net::UdpSender> otherDisplay;
    {
        const lab::Inside inside = m_lan.node("host2").enter();
        objector.emplace();
        otherDisplay.emplace(wire::kDiscovery.address, wire::kDiscovery.port, 0, 0);
    }
    negotiator->asyncLogin(30);
    lab::Process doctor = start("display", {"--json", "--seconds", kSeconds});
    do
        otherDisplay->sendData(wire::kQuery.data(), static_cast<int>(wire::kQuery.size()));
    while (!doctor.wait(100ms));
    findingsOf(doctor, {{"id-contest", "10.20.1.1 claimed"}, {"other-display", "queries from 10.20.1.2"}});
    objector.reset();
    EXPECT_EQ(start("display", {"--seconds", kSeconds}).wait(60s), 0) << "with nobody who objects";
    net::detail::setTiming({});
}

} // namespace
