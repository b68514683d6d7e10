#include "profile_directory.h"
#include "wait.h"

#include <UdpSocket/detail/wire.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
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

/// Equipment that answers datagrams of a group in a way of its own, each after a while.
class Replier final : public net::iUdpDataListener {
public:
    using Reply = std::function<std::string(const std::string&)>; // empty: none
    Replier(const wire::Group& group, std::chrono::milliseconds delay, Reply reply)
        : m_reply(std::move(reply)), m_delay(delay), m_sender(group.address, group.port, 0, 0),
          m_receiver(this, 0, group.address, group.port, 1024) {}
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        if (const std::string answer = m_reply({data, static_cast<std::size_t>(length)}); !answer.empty())
            m_answers.emplace_back([this, answer] {
                std::this_thread::sleep_for(m_delay);
                m_sender.sendData(answer.data(), static_cast<int>(answer.size()));
            });
    }

private:
    Reply m_reply;
    std::chrono::milliseconds m_delay;
    net::UdpSender m_sender;
    std::list<std::jthread> m_answers; // the receiver's thread adds to it, and ends first
    net::UdpReceiver m_receiver;
};

std::string objectionTo(const std::string& probe) {
    return wire::hasCode(probe, wire::kProbe) ? std::string(wire::text(wire::kObjection)) + probe.substr(2)
                                              : "";
}

std::string announcementFor(const std::string& query) {
    std::string announcement(wire::kShortAnnouncement.length, '\0');
    announcement.replace(0, 6, std::string(wire::text(wire::kAnnouncement)) + "Slow");
    return query == wire::text(wire::kQuery) ? announcement : "";
}

/// How the display's network, or a host, is broken, and what doctor says to it.
struct Case {
    const char* name;
    const char* breakage;                                      ///< shell commands on the display
    std::vector<std::pair<std::string, std::string>> expected; ///< finding and a part of what it says
    const char* profile = "";
    std::vector<Host> hosts = {{"host1", "North", 20}, {"host2", "South", 21}};
    const char* node = "display"; ///< where doctor looks
    const char* seconds = "4";
    std::vector<std::string> through = {}; ///< what doctor is run by
    wire::Group replierGroup = wire::kDiscovery;
    Replier::Reply reply = nullptr; ///< of equipment on host2
    std::chrono::milliseconds delay = 0ms;
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

    const ProfileDirectory m_profile;
    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2), lab::display(2)}};
    std::list<HostServer> m_hosts;
};

TEST_P(Doctor, NamesTheCauseAndNoOther) {
    const Case& row = GetParam();
    if (*row.profile != '\0')
        m_profile.write(row.profile);
    serve(row.hosts);
    std::unique_ptr<HostNegotiator> negotiator;
    std::unique_ptr<Replier> replier;
    if (row.replierGroup.port == wire::kNegotiation.port || std::string_view(row.node) == "host1") {
        const lab::Inside inside = m_lan.node("host1").enter();
        negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
    }
    if (row.reply) {
        const lab::Inside inside = m_lan.node("host2").enter();
        replier = std::make_unique<Replier>(row.replierGroup, row.delay, row.reply);
    }
    if (negotiator)
        negotiator->asyncLogin(30);
    // What is left running there ends with this process of the lab.
    lab::Process breakage = m_lan.node("display").start(
        {.command = {"sh", "-ec", std::string(row.breakage) + "\necho broken; sleep 60"}});
    ASSERT_TRUE(breakage.lineWith("broken", 30s)) << breakage.output();

    lab::Process doctor = start(row.node, {"--json", "--seconds", row.seconds}, row.through);
    const std::optional<int> status = doctor.wait(60s);
    const nlohmann::json document = nlohmann::json::parse(doctor.output());
    bool complains = false;
    std::map<std::string, std::string> found;
    for (const nlohmann::json& finding : document.at("findings")) {
        const std::string id = finding.at("id");
        const bool isComplaint = finding.at("severity") == "fault" || finding.at("severity") == "warning";
        complains = complains || isComplaint;
        found[id] += finding.at("what").get<std::string>() + "; " + finding.at("remedy").get<std::string>() +
                     "; " + finding.at("measured").get<std::string>();
        const bool isExpected =
            std::ranges::count(row.expected, id, &std::pair<std::string, std::string>::first) != 0;
        EXPECT_TRUE(isExpected || !isComplaint) << finding;
    }
    for (const auto& [id, part] : row.expected)
        EXPECT_THAT(found[id], HasSubstr(part)) << document.dump(2);
    EXPECT_EQ(status, complains ? 1 : 0);

    if (document["findings"].size() != 1 || !row.through.empty())
        return;
    const std::string remedy = document["findings"][0].at("remedy");
    const std::string command = remedy.substr(0, remedy.find(", "));
    constexpr const char* kCommands[] = {"nft ", "iptables ", "sysctl ", "ip link "};
    if (std::ranges::any_of(kCommands, [&](const char* start) { return command.starts_with(start); })) {
        shell(command);
        EXPECT_EQ(start(row.node, {"--seconds", row.seconds}).wait(60s), 0) << command << " cures nothing";
    }
}

// clang-format off
constexpr const char* kDropRule = "nft add table ip filter; nft add chain ip filter input '{ type filter hook input priority 0; policy accept; }';"
                                  "nft add rule ip filter input iifname eth0 udp dport '{ 1000, 6800-6900 }' drop";
const std::vector<std::string> kUnprivileged{"setpriv", "--bounding-set", "-all", "--inh-caps", "-all"};
// What no set-up makes the system do, a tracer does; a leak checker would not run under it. The first four sendto calls
// list the interfaces.
std::vector<std::string> traced(const std::string& injection) {
    return {"env", "ASAN_OPTIONS=detect_leaks=0", "strace", "--output=/dev/null", "--inject=" + injection};
}
const Case kCases[] = {
    {"CutCable", "ip -n lan link set display-eth0 down", {{"no-carrier", "eth0 has no carrier; plug in"}}},
    {"InterfaceOff", "ip link set eth0 down", {{"interface-down", "ip link set eth0 up"}}},
    {"NoAddress", "ip addr flush dev eth0", {{"no-address", "eth0 has no IPv4 address"}}},
    {"MulticastFlag", "ip link set eth0 multicast off", {{"no-multicast", "ip link set eth0 multicast on"}}},
    {"WrongNetwork", "ip addr flush dev eth0; ip addr add 192.168.77.1/24 dev eth0",
     {{"wrong-subnet", "announcements from 10.20.1.1, eth0 has 192.168.77.1/24"}}},
    {"ReversePath", "ip route add 10.20.1.0/24 dev eth1; echo 1 > /proc/sys/net/ipv4/conf/eth0/rp_filter",
     {{"rp-filter", "what 10.20.1.1 sends through eth0, since its way back leads through eth1"}}},
    {"ReversePathByEffect", "ip route add 10.20.1.0/24 dev eth1; echo 1 > /proc/sys/net/ipv4/conf/eth0/rp_filter",
     {{"rp-filter", "rp_filter 1 on eth0"}}, "", {{"host1", "North", 20}}, "display", "4", kUnprivileged},
    {"TwoPaths", "ip addr flush dev eth1; ip addr add 10.20.2.2/16 dev eth1; ip -n lan link set display-eth1 master lan0",
     {{"two-paths", "heard through eth0, eth1"}}},
    {"NftablesRule", kDropRule, {{"firewall", "nft rule ip filter input handle 3 drops queries and announcements (236.6.7.5:6878)"}}},
    {"NftablesByEffect", kDropRule, {{"firewall", "as root"}, {"firewall-unread", "needs root"}}, "", {}, "display", "4", kUnprivileged},
    {"NftablesPolicy", "nft add table ip t; nft add chain ip t in '{ type filter hook input priority 0; policy drop; }';"
     "nft add chain ip t lan; nft add rule ip t lan udp dport 22 accept; nft add rule ip t in ct state vmap '{ established : accept, new : jump lan }'",
     {{"firewall", "nft insert rule ip t in ip daddr 236.6.0.0/16 accept"}}},
    {"NftablesReports", "nft add table ip t; nft add chain ip t out '{ type filter hook output priority 0; }'; nft add rule ip t out ip protocol igmp drop",
     {{"firewall", "drops IGMP reports on eth0"}}},
    {"NftablesQueries", "nft add table ip t; nft add chain ip t out '{ type filter hook output priority 0; }'; nft add rule ip t out ip daddr 236.6.0.0/16 drop",
     {{"firewall", "drops queries (236.6.7.5:6878) on eth0"}}},
    {"IptablesRule", "iptables -N radar; iptables -A INPUT -p udp -m comment --comment 'no radar' -j radar; iptables -A radar -p udp -d 236.6.0.0/16 -m multiport --dports 6000:7000 -j DROP",
     {{"firewall", "-A radar -d 236.6.0.0/16 -p udp"}}},
    {"Redirected", "nft add table ip t; nft add chain ip t pre '{ type filter hook prerouting priority 0; }'; nft add rule ip t pre ip saddr 10.20.1.0/24 udp dport 6878 udp dport set 7777",
     {{"no-radar", "announcements reach this machine, and no program on it"}}},
    {"ForeignGroups", "iptables -A INPUT -d 239.0.0.0/8 -j DROP; nft add table ip t; nft add chain ip t in '{ type filter hook input priority 0; }'; nft add rule ip t in ip daddr != 236.6.0.0/16 ip saddr != 10.0.0.0/8 drop", {}},
    {"PortTaken", "socat -u UDP4-RECV:6878 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done", {{"port-taken", "socat (process"}}},
    {"NoMemberships", "echo 0 > /proc/sys/net/ipv4/igmp_max_memberships", {{"membership-limit", "refuses to join"}}},
    {"FewMemberships", "echo 1 > /proc/sys/net/ipv4/igmp_max_memberships", {{"membership-limit", "limit 1 a socket"}}},
    {"SlowProgram", "socat -u UDP4-RECV:6878,reuseaddr,rcvbuf=2304,ip-add-membership=236.6.7.5:10.20.2.1 /dev/null & until grep -q :1ADE /proc/net/udp; do :; done; kill -STOP $!",
     {{"socket-drops", "port 6878"}}},
    {"NoQuerySent", "", {{"query-not-sent", "refuses to send a query through eth0; look at the address and the routes of eth0; Network is down"}},
     "", {{"host1", "North", 20}}, "display", "4", traced("sendto:error=ENETDOWN:when=5+")},
    {"SmallBuffer", "", {{"receive-buffer", "rmem_max=262144; 10 KiB granted of 256 KiB"}}, // the limit is the whole machine's
     "", {{"host1", "North", 20}}, "display", "4", traced("getsockopt:poke_exit=@arg4=00500000")},
    {"OldIgmp", "echo 1 > /proc/sys/net/ipv4/conf/eth0/force_igmp_version", {{"igmp-version", "eth0: V1"}}},
    {"ProfileUnreadable", "mkdir $INIPROFILE_DIR/profile.ini", {{"profile-unreadable", "Is a directory"}}},
    {"ProfileAddress", "", {{"profile-address", "IP = 10.9.9.9"}}, "[Local]\nIP = 10.9.9.9\n"},
    {"ProfileNoAddress", "", {{"profile-address", "no IPv4 address"}}, "[Local]\nIP = eth0\n"},
    {"ProfileInterface", "", {{"profile-interface", "NetName = eth7"}}, "[Local]\nNetName = eth7\n"},
    {"WrongInterface", "", {{"wrong-interface", "set [Local] IP to 10.20.2.1"}}, "[Local]\nIP = 192.168.1.1\n"},
    {"FixedRadar", "", {{"fixed-radar", "10.20.1.2, which does not answer TCP port 6878"}}, "[Radar]\nIP = 10.20.1.2\n"},
    {"SameId", "", {{"same-id", "\"No'rth\" (10.20.1.1) and \"South\" (10.20.1.2) hold one host id"}, {"same-id", "radarctl renumber 'No'\\''rth':"}},
     "", {{"host1", "No'rth", 20}, {"host2", "South", 20}}},
    {"SameName", "", {{"same-name", "\"North\" (10.20.1.1) and \"North\" (10.20.1.2)"}}, "", {{"host1", "North", 20}, {"host2", "North", 21}}},
    {"LateAnswers", "", {{"late-answers", "\"Slow\" (10.20.1.2) answers so late"}}, "", {{"host1", "North", 20}}, "display", "12", {}, wire::kDiscovery, announcementFor, 3500ms},
    {"LostAnswers", "ip netns exec lan nft 'add table bridge t; add chain bridge t f { type filter hook forward priority 0; }; add rule bridge t f iifname host1-eth0 oifname display-eth0 numgen inc mod 3 != 0 drop'",
     {{"lost-answers", "\"North\""}}, "", {{"host1", "North", 20}}, "display", "6"},
    {"IdContest", "", {{"id-contest", "10.20.1.1 claimed"}}, "", {{"host1", "North", 20}}, "display", "6", {}, wire::kNegotiation, objectionTo},
    {"HostWithoutRoute", "ip -n host1 route del default", {{"no-multicast-route", "ip route add 236.6.0.0/16"}, {"host-here", "MulticastLoop = true"}}, "", {{"host2", "South", 21}}, "host1"},
    {"OtherDisplay", "ip netns exec host2 " RADARCTL " watch --local 10.20.1.2 >/dev/null &", {{"other-display", "queries from 10.20.1.2"}}, "", {{"host1", "North", 20}}, "display", "8"},
    {"Nobody", "", {{"no-radar", "nobody answers"}, {"no-querier", "no IGMP query in 4.0 s"}}, "", {}},
    {"Unprivileged", "", {{"firewall-unread", "could not check: needs root"}, {"wire-unread", "could not check: needs root"}}, "", {{"host1", "North", 20}}, "display", "4", kUnprivileged},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Lab, Doctor, testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST_F(Doctor, FindsNothingToComplainAboutInAHealthyNetwork) {
    serve({{"host1", "\x1b[2JNorth", 20}, {"host2", "South", 1}});
    lab::Process doctor = start("display", {"--seconds", "5"});
    EXPECT_EQ(doctor.wait(30s), 0);
    EXPECT_THAT(doctor.output(),
                testing::AllOf(testing::StartsWith("looked at:\n"), HasSubstr("\"\\x1B[2JNorth\""),
                               testing::EndsWith("nothing to complain about\n")));
}

} // namespace
