#include "firewall.h"

#include "observation.h"

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

struct Outcome {
    Verdict verdict; ///< Accept, Drop, or Continue behind the last rule
    bool certain;
    std::string rule;
};

Outcome walk(const Chains& chains, const Chain& chain, int depth) {
    bool certain = true; // no rule that might have decided otherwise was passed
    for (const Rule& rule : chain.rules) {
        if (rule.matches == Tri::No || rule.verdict == Verdict::Continue)
            continue;
        Outcome outcome{rule.verdict, true, rule.name};
        if (rule.verdict == Verdict::Jump || rule.verdict == Verdict::Goto) {
            const auto target = chains.find(rule.target);
            if (target == chains.end() || depth == kDeepestJump)
                continue;
            outcome = walk(chains, target->second, depth + 1);
            if (outcome.verdict == Verdict::Continue && rule.verdict == Verdict::Goto)
                outcome.verdict = Verdict::Return;
        }
        if (outcome.verdict == Verdict::Continue) {
            certain = certain && outcome.certain;
            continue;
        }
        if (rule.matches == Tri::Yes)
            return {outcome.verdict == Verdict::Return ? Verdict::Continue : outcome.verdict,
                    certain && outcome.certain, outcome.rule};
        if (outcome.verdict == Verdict::Drop)
            return {Verdict::Drop, false, outcome.rule};
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
    for (const wire::Group& group : kGroups)
        incoming(group.use, 0, net::transAddr(group.address), group.port);
    for (const unsigned int source : undelivered(seen, interface.index))
        incoming("announcements of " + text(source), source, net::transAddr(wire::kDiscovery.address),
                 wire::kDiscovery.port);
    for (const auto& [host, heard] : seen.listening.hosts)
        if (host.interface == interface.index && heard.image.port != 0)
            incoming("the image of \"" + host.name + "\"", host.source, heard.image.ip,
                     net::NtoHs(heard.image.port));
    const unsigned int own = net::NtoHl(interface.addresses.front().ip);
    packets.push_back({"queries", false, true, interface.name, own,
                       net::NtoHl(net::transAddr(wire::kDiscovery.address)), wire::kDiscovery.port});
    packets.push_back(
        {"IGMP reports", true, true, interface.name, own, net::NtoHl(net::transAddr("224.0.0.22")), 0});
    packets.push_back(
        {"IGMP queries", true, false, interface.name, 0, net::NtoHl(net::transAddr("224.0.0.1")), 0});
    return packets;
}

/// A rule that is certain counts before one that may have been passed by.
std::optional<Loss> lossOf(const Ruleset& rules, const Packet& packet) {
    std::optional<Loss> found;
    const auto add = [&found](const std::optional<Loss>& loss) {
        if (loss && (!found || (loss->certain && !found->certain)))
            found = loss;
    };
    add(loss(parseIptables(rules.iptables, "iptables", packet)));
    add(loss(parseIptables(rules.iptablesLegacy, "iptables-legacy", packet)));
    if (!rules.nft.empty())
        add(loss(parseNft(rules.nft, rules.nftText, packet)));
    return found;
}

/// "a, b": each text once, in the order in which they came.
void append(std::string& list, const std::string& text, const std::string& separator = ", ") {
    if ((separator + list + separator).find(separator + text + separator) == std::string::npos)
        list += (list.empty() ? "" : separator) + text;
}

/// What a rule costs.
struct Cost {
    Loss loss;
    std::string uses;
    std::string interfaces;
    bool seenByEffect;
    std::string remedy;
    bool radars; ///< more than IGMP queries, which only switches need
    bool needed; ///< on an interface that may lead to the radars
};
using Costs = std::map<std::string, Cost>; // by rule

/// One that nobody needs is no fault while the radars are heard through another.
bool mayLead(const Observation& seen, int interface) {
    return !seen.radarHeard() || seen.radarHeardOn(interface);
}

/// @param lost own queries show that something is dropped there
/// @return whether a rule was found that explains that
bool judgeRules(const Observation& seen, const Interface& interface, bool lost, Costs& costs) {
    bool found = false;
    std::set<std::pair<std::string, std::string>> named; // rules, and groups that they drop
    for (const Packet& packet : packetsOf(seen, interface)) {
        const std::optional<Loss> loss = lossOf(seen.rules, packet);
        const std::string group = text(net::HtoNl(packet.destination)) + ":" + std::to_string(packet.port);
        const bool isQuery = packet.igmp && !packet.outgoing; // of which own queries show nothing
        if (!loss || (!loss->certain && (!lost || isQuery)) || !named.insert({loss->rule, group}).second)
            continue;
        Cost& cost = costs.try_emplace(loss->rule, Cost{*loss, "", "", lost, "", false, false}).first->second;
        append(cost.uses, packet.use + (packet.igmp ? "" : " (" + group + ")"));
        append(cost.interfaces, interface.name);
        append(cost.remedy, loss->remedy, " && ");
        cost.radars = cost.radars || !isQuery;
        cost.needed = cost.needed || mayLead(seen, interface.index);
        found = found || !isQuery;
    }
    return found;
}

/// @param queried an IGMP querier was heard, so a switch may snoop
void reportCosts(const Costs& costs, bool queried, Report& report) {
    for (const auto& [rule, cost] : costs)
        report.find(Id::Firewall,
                    !cost.needed             ? Severity::Note
                    : cost.radars || queried ? Severity::Fault
                                             : Severity::Warning,
                    rule + (cost.loss.certain ? " drops " : " probably drops ") + cost.uses + " on " +
                        cost.interfaces +
                        (cost.radars ? "" : ", so a switch that snoops takes the radars away after minutes"),
                    cost.remedy,
                    cost.seenByEffect && cost.radars ? "own queries did not come back, either"
                                                     : "read from the rules");
}

} // namespace

std::string networkOf(const Packet& packet) {
    constexpr unsigned int kHostIds = 236U << 8 | 6;
    return packet.destination >> 16 == kHostIds ? "236.6.0.0/16" : text(net::HtoNl(packet.destination));
}

std::optional<Loss> loss(const Chains& chains) {
    std::optional<Loss> doubtful;
    for (const auto& [key, chain] : chains) {
        if (!chain.hooked)
            continue;
        Outcome outcome = walk(chains, chain, 0);
        if (outcome.verdict == Verdict::Continue && chain.dropsByPolicy)
            outcome.verdict = Verdict::Drop;
        if (outcome.verdict != Verdict::Drop)
            continue;
        const Loss found{outcome.rule, chain.remedy, outcome.certain};
        if (found.certain)
            return found;
        doubtful = found;
    }
    return doubtful;
}

Ruleset readRuleset() {
    Ruleset rules;
    const auto [nft, nftRead] = run("nft --json list ruleset 2>/dev/null");
    const auto [iptables, iptablesRead] = run("iptables-save 2>/dev/null");
    if (nftRead) {
        rules.nft = nft;
        rules.nftText = run("nft list ruleset 2>/dev/null").first;
    }
    if (iptablesRead)
        rules.iptables = iptables;
    if (run("grep -q . /proc/net/ip_tables_names 2>/dev/null").second) // or looking would make the tables
        rules.iptablesLegacy = run("iptables-legacy-save 2>/dev/null").first;
    if (nftRead || iptablesRead)
        return rules;
    rules.error = "needs root (CAP_NET_ADMIN), and nf_tables in the kernel, to read the packet filter";
    rules.remedy = "sudo radarctl doctor";
    if (!run("command -v nft || command -v iptables-save").second) {
        rules.error = "needs the program nft (Debian package nftables) to read the packet filter";
        rules.remedy = "sudo apt install nftables && sudo radarctl doctor";
    }
    return rules;
}

Report judgeFirewall(const Observation& seen) {
    Report report;
    const bool readable = seen.rules.error.empty();
    std::string effect;
    std::string unexplained; // interfaces on which something is dropped, by no rule that was found
    bool unexplainedNeeded = false;
    bool queried = false;
    Costs costs;
    for (const auto& [index, result] : seen.listening.results) {
        queried = queried || result.igmpQueries > 0;
        const Interface* interface = seen.interface(index);
        if (interface == nullptr || !interface->usable())
            continue;
        // Rules against forged sources may drop own queries alone: where radars are heard, that is no fault.
        const bool lost =
            result.sendError == EPERM ||
            (result.sent > 0 && result.looped == 0 && result.joinErrors[0] == 0 && !seen.radarHeardOn(index));
        append(effect, std::to_string(result.looped) + " of " + std::to_string(result.sent) +
                           " own queries came back through " + interface->name +
                           (result.sendError == EPERM ? " (not permitted)" : ""));
        bool explained = false;
        try {
            explained = judgeRules(seen, *interface, lost, costs);
        } catch (const nlohmann::json::exception& error) {
            report.find(Id::FirewallUnread, Severity::Unchecked,
                        "could not check: needs an nft whose JSON output can be read", "nft list ruleset",
                        error.what());
        }
        if (lost && !explained) {
            append(unexplained, interface->name);
            unexplainedNeeded = unexplainedNeeded || mayLead(seen, index);
        }
    }
    reportCosts(costs, queried, report);
    if (!unexplained.empty())
        report.find(Id::Firewall, unexplainedNeeded ? Severity::Fault : Severity::Note,
                    "the packet filter of this machine drops queries, or what comes for the discovery group, "
                    "on " +
                        unexplained,
                    readable ? "look for the rule: nft list ruleset"
                             : "run radarctl doctor as root: it names the rule",
                    effect);
    report.check("packet filter", (readable ? "rules read; " : "rules not readable; ") + effect);
    if (!readable)
        report.find(Id::FirewallUnread, Severity::Unchecked, "could not check: " + seen.rules.error,
                    seen.rules.remedy, "judged by effect alone: " + effect);
    return report;
}

} // namespace doctor
