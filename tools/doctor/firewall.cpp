#include "firewall.h"

#include "observation.h"

#include "../table.h"

#include <UdpSocket/udpsocket.h>

#include <nlohmann/json.hpp>

#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <set>
#include <system_error>

namespace doctor {
namespace {

constexpr int kDeepestJump = 16; // as deep as the kernel lets chains call each other

struct Fate {
    Verdict verdict; ///< Accept, Drop, or Continue behind the last rule
    bool certain;
    std::string rule;
};

Fate walk(const Chains& chains, const Chain& chain, int depth) {
    bool certain = true; // no rule that might have decided otherwise was passed
    for (const Rule& rule : chain.rules) {
        if (rule.matches == Tri::No || rule.verdict == Verdict::Continue)
            continue;
        Fate fate{rule.verdict, true, rule.name};
        if (rule.verdict == Verdict::Jump || rule.verdict == Verdict::Goto) {
            const auto target = chains.find(rule.target);
            if (target == chains.end() || depth == kDeepestJump)
                continue;
            fate = walk(chains, target->second, depth + 1);
            if (fate.verdict == Verdict::Continue && rule.verdict == Verdict::Goto)
                fate.verdict = Verdict::Return;
        }
        if (fate.verdict == Verdict::Continue) {
            certain = certain && fate.certain;
            continue;
        }
        if (rule.matches == Tri::Yes)
            return {fate.verdict == Verdict::Return ? Verdict::Continue : fate.verdict,
                    certain && fate.certain, fate.rule};
        if (fate.verdict == Verdict::Drop)
            return {Verdict::Drop, false, fate.rule};
        certain = false;
    }
    return {Verdict::Continue, certain, chain.name};
}

/// What a command writes, and whether it ended well. Commands of administrators are not in everybody's PATH.
std::pair<std::string, bool> run(const std::string& command) {
    FILE* pipe = ::popen(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str(), "re");
    if (pipe == nullptr)
        return {"", false};
    std::string output;
    char buffer[4096];
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, count);
    const int status = ::pclose(pipe);
    return {output, status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0};
}

/// Everything that has to pass for the radars of one interface to be seen.
std::vector<Packet> packetsOf(const Observation& seen, const Interface& interface) {
    std::vector<Packet> packets;
    const auto incoming = [&](const std::string& use, unsigned int source, unsigned int group,
                              unsigned short port) {
        packets.push_back({use, false, false, interface.name, net::NtoHl(source), net::NtoHl(group), port});
    };
    for (const Group& group : kGroups)
        incoming(group.use, 0, net::transAddr(group.address), group.port);
    for (const unsigned int source : undelivered(seen, interface.index))
        incoming("announcements of " + text(source), source, net::transAddr(kGroups[0].address),
                 kGroups[0].port);
    for (const auto& [host, hearing] : seen.listening.hosts)
        if (host.interface == interface.index && hearing.imagePort != 0)
            incoming("the image of \"" + printable(host.name) + "\"", host.source, hearing.imageGroup,
                     hearing.imagePort);
    const unsigned int own = net::NtoHl(interface.addresses.front().ip);
    packets.push_back({"queries", false, true, interface.name, own,
                       net::NtoHl(net::transAddr(kGroups[0].address)), kGroups[0].port});
    packets.push_back(
        {"IGMP reports", true, true, interface.name, own, net::NtoHl(net::transAddr("224.0.0.22")), 0});
    return packets;
}

/// A rule that is certain counts before one that may have been passed by.
std::optional<Loss> lossOf(const Ruleset& rules, const Packet& packet) {
    std::optional<Loss> found;
    if (!rules.iptables.empty())
        found = loss(parseIptables(rules.iptables, packet));
    if ((!found || !found->certain) && !rules.nft.empty())
        if (const auto other = loss(parseNft(rules.nft, packet)); other && (!found || other->certain))
            found = other;
    return found;
}

/// "a, b": each text once, in the order in which they came.
void append(std::string& list, const std::string& text) {
    if ((", " + list + ", ").find(", " + text + ", ") == std::string::npos)
        list += (list.empty() ? "" : ", ") + text;
}

/// What a rule costs.
struct Cost {
    Loss loss;
    std::string uses;
    std::string interfaces;
    bool seenByEffect;
};
using Costs = std::map<std::string, Cost>; // by rule

/// @param lost own queries show that something is dropped there
/// @return whether a rule was found
bool judgeRules(const Observation& seen, const Interface& interface, bool lost, Costs& costs) {
    bool found = false;
    std::set<std::pair<std::string, std::string>> named; // rules, and groups that they drop
    for (const Packet& packet : packetsOf(seen, interface)) {
        const std::optional<Loss> loss = lossOf(seen.rules, packet);
        const std::string group = text(net::HtoNl(packet.destination)) + ":" + std::to_string(packet.port);
        if (!loss || (!loss->certain && !lost) || !named.insert({loss->rule, group}).second)
            continue;
        Cost& cost = costs.try_emplace(loss->rule, Cost{*loss, "", "", lost}).first->second;
        append(cost.uses, packet.use + (packet.igmp ? "" : " (" + group + ")"));
        append(cost.interfaces, interface.name);
        found = true;
    }
    return found;
}

void reportCosts(const Costs& costs, Report& report) {
    for (const auto& [rule, cost] : costs)
        report.find(Id::Firewall, Severity::Fault,
                    printable(rule) + (cost.loss.certain ? " drops " : " probably drops ") + cost.uses +
                        " on " + cost.interfaces,
                    cost.loss.remedy,
                    cost.seenByEffect ? "own queries did not come back, either" : "read from the rules");
}

} // namespace

std::optional<Loss> loss(const Chains& chains) {
    std::optional<Loss> doubtful;
    for (const auto& [key, chain] : chains) {
        if (!chain.onTheWay)
            continue;
        Fate fate = walk(chains, chain, 0);
        if (fate.verdict == Verdict::Continue && chain.dropsByPolicy)
            fate.verdict = Verdict::Drop;
        if (fate.verdict != Verdict::Drop)
            continue;
        const Loss found{fate.rule, chain.remedy, fate.certain};
        if (found.certain)
            return found;
        doubtful = found;
    }
    return doubtful;
}

Ruleset readRuleset() {
    Ruleset rules;
    const auto [nft, nftRead] = run("nft --json list ruleset 2>/dev/null");
    const auto [iptables, iptablesRead] =
        run("iptables-save 2>/dev/null && { ! [ -s /proc/net/ip_tables_names ] "
            "|| iptables-legacy-save 2>/dev/null; }");
    if (nftRead)
        rules.nft = nft;
    if (iptablesRead)
        rules.iptables = iptables;
    if (!nftRead && !iptablesRead)
        rules.error =
            run("command -v nft || command -v iptables-save").second
                ? "needs root (CAP_NET_ADMIN), and nf_tables in the kernel, to read the packet filter"
                : "needs the program nft (Debian package nftables) to read the packet filter";
    return rules;
}

Report judgeFirewall(const Observation& seen) {
    Report report;
    const bool readable = seen.rules.error.empty();
    std::string effect;
    std::string unexplained; // interfaces on which something is dropped, by no rule that was found
    Costs costs;
    for (const auto& [index, ear] : seen.listening.ears) {
        const Interface* interface = seen.interface(index);
        if (interface == nullptr || !interface->usable())
            continue;
        // Rules against forged sources may drop own queries alone: where radars are heard, that is no fault.
        const bool lost = ear.sendError == EPERM || (ear.sent > 0 && ear.looped == 0 &&
                                                     ear.joinErrors[0] == 0 && !seen.radarHeardOn(index));
        append(effect, std::to_string(ear.looped) + " of " + std::to_string(ear.sent) +
                           " own queries came back through " + interface->name +
                           (ear.sendError == EPERM ? " (not permitted)" : ""));
        try {
            if (!judgeRules(seen, *interface, lost, costs) && lost)
                append(unexplained, interface->name);
        } catch (const nlohmann::json::exception& error) {
            report.find(Id::FirewallUnread, Severity::Unchecked,
                        "could not check: needs an nft whose JSON output can be read", "nft list ruleset",
                        printable(error.what()));
        }
    }
    reportCosts(costs, report);
    if (!unexplained.empty())
        report.find(Id::Firewall, Severity::Fault,
                    "the packet filter of this machine drops queries, or what comes for the discovery group, "
                    "on " +
                        unexplained,
                    readable ? "look for the rule: nft list ruleset"
                             : "run radarctl doctor as root: it names the rule",
                    effect);
    report.check("packet filter", (readable ? "rules read; " : "rules not readable; ") + effect);
    if (!readable)
        report.find(Id::FirewallUnread, Severity::Unchecked, "could not check: " + seen.rules.error,
                    "sudo radarctl doctor", "judged by effect alone: " + effect);
    return report;
}

} // namespace doctor
