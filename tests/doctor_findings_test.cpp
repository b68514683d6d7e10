#include "profile_directory.h"
#include "wait.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/udpsocket.h>

#include <doctor/observation.h>
#include <lab/lan.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <list>

namespace {

using namespace std::chrono_literals;
using doctor::Observation;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// ------------------------------------------------------------------------------- judged without a network

unsigned int ip(const char* text) {
    return net::transAddr(text);
}

/// A display whose eth0 leads to the radars and whose eth1 leads nowhere; nothing is wrong and nobody
/// answers.
Observation quietDisplay() {
    Observation seen;
    const unsigned int mask = ip("255.255.0.0");
    seen.interfaces = {{.name = "eth0",
                        .index = 1,
                        .up = true,
                        .carrier = true,
                        .multicast = true,
                        .addresses = {{ip("10.20.2.1"), mask}}},
                       {.name = "eth1",
                        .index = 2,
                        .up = true,
                        .carrier = true,
                        .multicast = true,
                        .addresses = {{ip("192.168.1.1"), mask}}}};
    seen.listening.duration = 10s;
    for (double time = 1; time < 6; ++time)
        seen.listening.queries.emplace_back(time);
    for (const int index : {1, 2})
        seen.listening.results[index] = {.sent = 5, .looped = 5, .wire = true};
    seen.groupsRoute.interface = seen.discoveryRoute.interface = "eth0";
    return seen;
}

void hear(Observation& seen, const char* source, const char* name, int id, std::vector<double> times) {
    auto& heard = seen.listening.hosts[{1, ip(source), name, id}];
    for (const double time : times)
        heard.times.emplace_back(time);
}

void runHost(Observation& seen) {
    seen.socketsBefore.push_back({ip(wire::kNegotiation.address), wire::kNegotiation.port, 0, 0, 0});
}

/// The words of what is complained about.
std::vector<std::string> complaints(const Observation& seen) {
    std::vector<std::string> words;
    for (const doctor::Finding& finding : doctor::judge(seen).findings)
        if (finding.isComplaint())
            words.emplace_back(finding.word());
    return words;
}

TEST(Findings, QueriesCountFromTheFirstAnswerOn) {
    Observation seen = quietDisplay();
    hear(seen, "10.20.1.1", "came while we listened", 16, {3.001, 4.001, 5.001});
    EXPECT_THAT(complaints(seen), testing::IsEmpty());
    hear(seen, "10.20.1.2", "answers every second one", 17, {1.001, 3.001, 5.001});
    EXPECT_THAT(complaints(seen), testing::ElementsAre("lost-answers"));
}

TEST(Findings, RouteToOneGroupIsJudgedByWhereTheOthersAre) {
    Observation seen = quietDisplay();
    seen.groupRoutes = {{ip("236.6.7.5"), "eth1"}, {ip("236.6.7.5"), "eth0"}};
    hear(seen, "10.20.1.1", "North", 16, {1.001, 2.001, 3.001, 4.001, 5.001});
    EXPECT_THAT(complaints(seen), testing::IsEmpty()) << "of a display";
    runHost(seen);
    EXPECT_THAT(complaints(seen), testing::ElementsAre("left-over-route"));
    seen.groupRoutes = {{ip("236.6.7.5"), "eth0"}, {ip("236.6.7.5"), "eth1"}};
    EXPECT_THAT(complaints(seen), testing::IsEmpty()) << "since the kernel takes the first";
}

TEST(Findings, HostHereComesFirstWhereNothingElseIsHeard) {
    Observation seen = quietDisplay();
    runHost(seen);
    seen.interfaces[1].carrier = false;
    EXPECT_THAT(complaints(seen), testing::ElementsAre("host-here", "no-carrier"));
    hear(seen, "10.20.1.1", "another", 16, {1.001, 2.001, 3.001, 4.001, 5.001});
    EXPECT_THAT(complaints(seen), testing::IsEmpty());
}

TEST(Findings, HostHereSaysWhoseMulticastDoesNotLoop) {
    const auto remedy = [](bool asks, bool answers) {
        Observation seen = quietDisplay();
        runHost(seen);
        seen.profile.multicastLoop = asks;
        if (answers)
            hear(seen, "10.20.2.1", "own", 16, {1.001, 2.001, 3.001, 4.001, 5.001});
        const doctor::Findings findings = doctor::judge(seen).findings;
        return findings.empty() ? "" : findings[0].remedy;
    };
    EXPECT_THAT(remedy(false, false), HasSubstr("of both, the host and the displays here"));
    EXPECT_THAT(remedy(true, false), HasSubstr("profile.ini of that host"));
    EXPECT_THAT(remedy(false, true), HasSubstr("profile.ini of displays here"));
    EXPECT_EQ(remedy(true, true), "");
}

TEST(Findings, AddressThatThisComputerHasTooIsNamed) {
    Observation seen = quietDisplay();
    seen.ownHardware = {"02:00:00:00:00:01"};
    seen.listening.hardware[{1, ip("10.20.2.1")}] = {"02:00:00:00:00:01"};
    seen.listening.hardware[{1, ip("10.20.1.1")}] = {"02:00:00:00:00:02"};
    hear(seen, "10.20.1.1", "North", 16, {1.001, 2.001, 3.001, 4.001, 5.001});
    EXPECT_THAT(complaints(seen), testing::IsEmpty());
    seen.listening.hardware[{1, ip("10.20.2.1")}] = {"02:00:00:00:00:03"};
    EXPECT_THAT(complaints(seen), testing::ElementsAre("same-address"));
}

TEST(Findings, MisspeltProfileKeysAreNamedAndThoseOfOthersLeft) {
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
        seen.profile.entries = doctor::profileEntries(text);
        const doctor::Findings findings = doctor::judgeProfileKeys(seen).findings;
        EXPECT_EQ(findings.empty() ? "" : findings[0].remedy, expected) << text;
    }
}

// ------------------------------------------------------------------------------------- looked at in the lab

/// A display with two interfaces, a radar host and one with two interfaces.
class Lab : public testing::Test {
protected:
    lab::Process doctor(const char* node, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {RADARCTL, "doctor", "--seconds", "4"});
        return m_lan.node(node).start({.command = arguments, .errorFile = "/dev/null"});
    }
    void shell(const std::string& node, const std::string& commands) {
        lab::Process process = m_lan.node(node).start({.command = {"sh", "-ec", commands}});
        ASSERT_EQ(process.wait(30s), 0) << commands << "\n" << process.output();
    }
    void serve(const char* node, const char* name, std::uint8_t id) {
        const lab::Inside inside = m_lan.node(node).enter();
        m_hosts.emplace_back(name, id, 1U);
    }
    /// Doctor complains of that alone, and its remedy helps.
    void expectCured(const char* node, const std::string& word, const testing::Matcher<std::string>& line) {
        lab::Process before = doctor(node, {"--json"});
        EXPECT_EQ(before.wait(60s), 1);
        std::string remedy;
        const nlohmann::json document = nlohmann::json::parse(before.output());
        for (const nlohmann::json& finding : document.at("findings")) {
            if (finding.at("severity") != "fault" && finding.at("severity") != "warning")
                continue;
            EXPECT_EQ(finding.at("id"), word) << finding;
            remedy = finding.at("remedy");
            EXPECT_THAT(finding.at("what").get<std::string>() + "; " + remedy, line);
        }
        shell(node, remedy.substr(0, remedy.find(", ")));
        lab::Process after = doctor(node, {});
        EXPECT_EQ(after.wait(60s), 0) << remedy << " does not help:\n" << after.output();
    }

    const ProfileDirectory m_profile;
    lab::Lan m_lan{{lab::display(2),
                    lab::radarHost(1),
                    {"host2", {{"10.20.1.2/16"}, {"192.168.9.1/24", lab::Leads::Nowhere}}, true}}};
    std::list<HostServer> m_hosts;
};

/// A filter of the display, and what doctor says of it.
struct Filter {
    const char* name;
    const char* commands;
    testing::Matcher<std::string> line;
};
void PrintTo(const Filter& filter, std::ostream* stream) {
    *stream << filter.name;
}
class Filters : public Lab, public testing::WithParamInterface<Filter> {};

TEST_P(Filters, AreNamedAndOpenedByTheRemedy) {
    serve("host1", "North", 20);
    shell("display", GetParam().commands);
    expectCured("display", "firewall", GetParam().line);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Lab, Filters, testing::Values(
    Filter{"IgmpQueries", "nft add table ip t; nft add chain ip t in '{ type filter hook input priority 0; policy drop; }'; nft add rule ip t in ip daddr 236.6.0.0/16 accept",
           HasSubstr("nft chain ip t in drops IGMP queries on eth0, eth1, so a switch that snoops takes the radars away after minutes; nft insert rule ip t in ip protocol igmp accept")},
    Filter{"IgmpQueriesByType", "nft add table inet t; nft add chain inet t in '{ type filter hook input priority 0; }'; nft add rule inet t in igmp type '{ membership-query, membership-report-v1 }' drop",
           HasSubstr("handle 3 drops IGMP queries")},
    Filter{"IptablesIgmp", "iptables -A INPUT -d 224.0.0.0/24 -j DROP", HasSubstr("iptables -t filter -I INPUT -p igmp -j ACCEPT")},
    Filter{"LegacyPolicy", "iptables-legacy -P INPUT DROP",
           AllOf(HasSubstr("policy of iptables-legacy chain INPUT (table filter) drops queries and announcements (236.6.7.5:6878)"), HasSubstr("IGMP queries"))},
    Filter{"Netdev", "nft add table netdev t; nft add chain netdev t in '{ type filter hook ingress device \"eth0\" priority 0; }'; nft add rule netdev t in udp dport 6878 drop",
           AllOf(HasSubstr("nft rule netdev t in handle 2 drops queries and announcements (236.6.7.5:6878)"), Not(HasSubstr("eth1")))}),
    [](const auto& row) { return row.param.name; });
// clang-format on

TEST_F(Lab, RouteThatASearchLeftIsDeletedByTheRemedy) {
    serve("host1", "North", 20);
    serve("host2", "South", 21);
    std::unique_ptr<HostNegotiator> negotiator;
    {
        const lab::Inside inside = m_lan.node("host2").enter();
        negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
    }
    shell("host2", "for group in 236.6.7.5 236.6.7.4; do ip route prepend $group dev eth1; done");
    expectCured("host2", "left-over-route",
                AllOf(HasSubstr("instead of eth0"),
                      HasSubstr("ip route del 236.6.7.4 dev eth1 && ip route del 236.6.7.5 dev eth1")));
}

TEST_F(Lab, TinyMtuIsNamedAndRaisedByTheRemedy) {
    serve("host1", "North", 20);
    shell("display", "ip link set eth0 mtu 100");
    expectCured("display", "small-mtu", HasSubstr("eth0 takes packets of up to 100 bytes"));
}

TEST_F(Lab, ComputersWithOneAddressAreTold) {
    serve("host1", "North", 20);
    serve("host2", "South", 21);
    const std::pair<const char*, const char*> rows[] = {
        {"10.20.1.1/16", "radar hosts at eth0 share the address 10.20.1.1; give each an address of its own"},
        {"10.20.2.1/16", "another computer at eth0 has this one's address 10.20.2.1; give each"}};
    for (const auto& [address, line] : rows) {
        m_lan.changeAddress(m_lan.node("host2"), 0, address);
        lab::Process told = doctor("display", {});
        EXPECT_EQ(told.wait(60s), 1);
        EXPECT_THAT(told.output(), AllOf(testing::StartsWith("fault same-address"), HasSubstr(line)));
    }
    m_lan.changeAddress(m_lan.node("host2"), 0, "10.20.1.2/16");
    EXPECT_EQ(doctor("display", {}).wait(60s), 0);
}

TEST_F(Lab, TwoHardwareAddressesAreSeenWithoutPrivileges) {
    serve("host1", "North", 20);
    lab::Process change = m_lan.node("display").start(
        {.command = {
             "sh", "-ec",
             "for i in $(seq 100); do ip neigh replace 10.20.1.1 dev eth0 lladdr 02:00:00:00:00:0$((i % 2)); "
             "sleep 0.3; done"}});
    lab::Process doctor =
        m_lan.node("display").start({.command = {"setpriv", "--bounding-set", "-all", "--inh-caps", "-all",
                                                 RADARCTL, "doctor", "--seconds", "4"},
                                     .errorFile = "/dev/null"});
    EXPECT_EQ(doctor.wait(60s), 1);
    EXPECT_THAT(doctor.output(), HasSubstr("10.20.1.1 belongs to 02:00:00:00:00:00, 02:00:00:00:00:01"));
}

TEST_F(Lab, HostOnThisComputerIsHeardOnceBothSidesLoop) {
    m_profile.write("[Local]\nMulticastLop = true\n");
    serve("host2", "Own", 21);
    std::unique_ptr<HostNegotiator> negotiator;
    {
        const lab::Inside inside = m_lan.node("host2").enter();
        negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
    }
    lab::Process before = doctor("host2", {});
    EXPECT_EQ(before.wait(60s), 1);
    EXPECT_THAT(before.output(), AllOf(testing::StartsWith("fault host-here"),
                                       HasSubstr("MulticastLop, which the library does not "
                                                 "read; MulticastLoop?")));
    m_profile.write("[Local]\nMulticastLoop = true\n");
    m_hosts.clear();
    serve("host2", "Own", 21);
    EXPECT_EQ(doctor("host2", {}).wait(60s), 0);
}

TEST_F(Lab, OneInterfaceAloneIsSaidToBeAll) {
    serve("host1", "North", 20);
    lab::Process nobody = doctor("display", {"--interface", "eth1"});
    EXPECT_EQ(nobody.wait(60s), 1);
    EXPECT_THAT(nobody.output(), HasSubstr("nobody answers on eth1, which alone was looked at"));
    lab::Process healthy = doctor("display", {"--interface", "eth0"});
    EXPECT_EQ(healthy.wait(60s), 0);
    EXPECT_THAT(healthy.output(),
                testing::EndsWith("nothing to complain about on eth0, which alone was looked at\n"));
}

TEST_F(Lab, OneComputerIsEnoughForHostAndDisplay) {
    const lab::Node& computer = m_lan.node("host1");
    lab::Process host =
        computer.start({.command = {RADARCTL, "host", "--name", "North", "--simulate", "--loop"}});
    lab::Process list = computer.start({.command = {RADARCTL, "list", "--loop"}});
    EXPECT_EQ(list.wait(30s), 0);
    EXPECT_THAT(list.output(), HasSubstr("North"));
    lab::Process listen =
        computer.start({.command = {RADARCTL, "listen", "North", "0", "--seconds", "2", "--loop"}});
    EXPECT_EQ(listen.wait(30s), 0) << listen.output();
    EXPECT_THAT(doctor("host1", {}).wait(60s), 1) << "since nobody told it";
    lab::Process told = doctor("host1", {"--loop"});
    EXPECT_EQ(told.wait(60s), 0) << told.output();
}

TEST(FirstMinute, HasNoFalseAlarm) {
    lab::Process lan({.command = {LAN_PROGRAM, "--hosts", "3", "--", RADARCTL, "doctor", "--seconds", "4"}});
    EXPECT_EQ(lan.wait(60s), 0);
    EXPECT_THAT(lan.output(), AllOf(HasSubstr("lan: waiting until 3 hosts serve"),
                                    HasSubstr("\"radar-3\" (10.20.1.3): host id 18"),
                                    HasSubstr("nothing to complain about")));
}

} // namespace
