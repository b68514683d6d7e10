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

std::optional<Loss> lossOf(const Ruleset& rules, const Packet& packet) {
    std::optional<Loss> found;
    if (!rules.iptables.empty())
        found = loss(parseIptables(rules.iptables, packet));
    if (!found && !rules.nft.empty())
        found = loss(parseNft(rules.nft, packet, !rules.iptables.empty()));
    return found;
}

/// Judges by the rules. @return whether one of them was named
bool judgeRules(const Observation& seen, const Interface& interface, bool lost, Report& report) {
    std::map<std::string, std::pair<Loss, std::string>> losses; // by rule, with what it costs
    std::set<std::pair<std::string, std::string>> named;
    for (const Packet& packet : packetsOf(seen, interface)) {
        const std::optional<Loss> found = lossOf(seen.rules, packet);
        const std::string group = text(net::HtoNl(packet.destination)) + ":" + std::to_string(packet.port);
        if (!found || (!found->certain && !lost) || !named.insert({found->rule, group}).second)
            continue;
        auto& [loss, uses] = losses.try_emplace(found->rule, *found, "").first->second;
        uses += (uses.empty() ? "" : ", ") + packet.use + (packet.igmp ? "" : " (" + group + ")");
    }
    for (const auto& [rule, cost] : losses)
        report.find(Id::Firewall, Severity::Fault,
                    printable(rule) + (cost.first.certain ? " drops " : " probably drops ") + cost.second +
                        " on " + interface.name,
                    cost.first.remedy,
                    lost ? "own queries did not come back, either" : "read from the rules");
    return !losses.empty();
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
    for (const auto& [index, ear] : seen.listening.ears) {
        const Interface* interface = seen.interface(index);
        if (interface == nullptr || !interface->usable())
            continue;
        const bool refused = ear.sendError == EPERM;
        const bool lost = refused || (ear.sent > 0 && ear.looped == 0 && ear.joinErrors[0] == 0);
        const std::string count = std::to_string(ear.looped) + " of " + std::to_string(ear.sent) +
                                  " own queries came back through " + interface->name;
        effect += (effect.empty() ? "" : ", ") + count;
        bool named = false;
        try {
            named = judgeRules(seen, *interface, lost, report);
        } catch (const nlohmann::json::exception& error) {
            report.find(Id::FirewallUnread, Severity::Unchecked,
                        "could not check: needs an nft whose JSON output can be read", "nft list ruleset",
                        printable(error.what()));
        }
        if (lost && !named)
            report.find(Id::Firewall, Severity::Fault,
                        "the packet filter of this machine drops " +
                            std::string(refused ? "queries" : "what comes for the discovery group") + " on " +
                            interface->name,
                        readable ? "look for the rule: nft list ruleset"
                                 : "run radarctl doctor as root: it names the rule",
                        refused ? std::generic_category().message(EPERM) : count);
    }
    report.check("packet filter", (readable ? "rules read; " : "rules not readable; ") + effect);
    if (!readable)
        report.find(Id::FirewallUnread, Severity::Unchecked, "could not check: " + seen.rules.error,
                    "sudo radarctl doctor", "judged by effect alone: " + effect);
    return report;
}

} // namespace doctor
