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
    if (document["findings"].size() != 1 || !row.through.empty())
        return;
    const std::string remedy = document["findings"][0].at("remedy");
    const std::string command = remedy.substr(0, remedy.find(", "));
    constexpr const char* kCommands[] = {"nft ", "iptables ", "sysctl ", "ip link "};
    if (std::ranges::any_of(kCommands, [&](const char* start) { return command.starts_with(start); })) {
        shell(command);
        EXPECT_EQ(start(row.node, {"--seconds", kSeconds}).wait(60s), 0) << command << " does not help";
    }
}

// clang-format off
constexpr const char* kDropRule = "nft add table ip filter; nft add chain ip filter input '{ type filter hook input priority 0; policy accept; }';"
                                  "nft add rule ip filter input iifname eth0 udp dport '{ 1000, 6800-6900 }' drop";
const std::vector<std::string> kUnprivileged{"setpriv", "--bounding-set", "-all", "--inh-caps", "-all"};
// strace injects failures that no set-up can cause; a leak checker cannot run under it. The first four sendto calls
// list the interfaces.
const Case kCases[] = {
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
    {"PortTaken", "socat -u UDP4-RECV:6878 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done", {{"port-taken", "socat (process"}}},
    {"NoMemberships", "echo 0 > /proc/sys/net/ipv4/igmp_max_memberships", {{"membership-limit", "refuses to join"}}},
    {"SlowProgram", "socat -u UDP4-RECV:6878,reuseaddr,rcvbuf=2304,ip-add-membership=236.6.7.5:10.20.2.1 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done; kill -STOP $!",
     {{"socket-drops", "port 6878"}}},
    // The receive buffer's limit cannot be set in a namespace.
    {"RefusedBySystem", "", {{"query-not-sent", "refuses to send a query through eth0; look at the address and the routes of eth0; Network is down"},
                             {"receive-buffer", "rmem_max=262144; 10 KiB granted of 256 KiB"}}, "", {{"host1", "North", 20}}, "display",
     {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", "--inject=sendto:error=ENETDOWN:when=5+", "--inject=getsockopt:poke_exit=@arg4=00500000"}},
    {"SettingsOfTheSystem", "echo 1 > /proc/sys/net/ipv4/conf/eth0/force_igmp_version; mkdir $INIPROFILE_DIR/profile.ini",
     {{"igmp-version", "eth0: V1"}, {"profile-unreadable", "Is a directory"}}},
    {"Profile", "", {{"wrong-interface", "to 192.168.1.1, and the radars are on another interface; set [Local] IP to 10.20.2.1"}, {"fixed-radar", "10.20.1.2, which does not answer TCP port 6878"}},
     "[Local]\nNetName = eth1\n[Radar]\nIP = 10.20.1.2\n"},
    {"HostWithoutRoute", "ip -n host1 route del default", {{"no-multicast-route", "ip route add 236.6.0.0/16"}, {"host-here", "MulticastLoop = true"}}, "", {{"host2", "South", 21}}, "host1"},
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
    net::detail::setTiming({});
}

} // namespace
