#include "firewall.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <iomanip>
#include <sstream>

namespace doctor {
namespace {

/// 0 for what is no number.
int number(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::vector<std::string> parts(const std::string& text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string part; std::getline(stream, part, separator);)
        result.push_back(part);
    return result;
}

bool lists(const std::string& list, const std::string& word) {
    return std::ranges::count(parts(list, ','), word) != 0;
}

/// "236.6.7.5/32", "236.6.0.0/255.255.0.0" or an address alone.
Tri inNetwork(unsigned int address, const std::string& network) {
    if (address == 0)
        return Tri::Maybe;
    const std::string base = network.substr(0, network.find('/'));
    const std::string length = base.size() < network.size() ? network.substr(base.size() + 1) : "32";
    in_addr parsed{};
    in_addr mask{};
    if (::inet_pton(AF_INET, base.c_str(), &parsed) != 1)
        return Tri::Maybe;
    if (::inet_pton(AF_INET, length.c_str(), &mask) != 1) {
        const int bits = number(length);
        mask.s_addr = bits <= 0 || bits > 32 ? 0 : htonl(~0U << (32 - bits));
    }
    return triOf((htonl(address) & mask.s_addr) == (parsed.s_addr & mask.s_addr));
}

Tri hasPort(const Packet& packet, const std::string& list) {
    if (packet.igmp)
        return Tri::No;
    for (const std::string& range : parts(list, ',')) {
        const std::vector<std::string> ends = parts(range, ':');
        if (!ends.empty() && number(ends.front()) <= packet.port && packet.port <= number(ends.back()))
            return Tri::Yes;
    }
    return Tri::No;
}

Tri isInterface(const Packet& packet, bool in, const std::string& pattern) {
    if (in == packet.outgoing)
        return Tri::No;
    return triOf(pattern.ends_with("+") ? packet.interface.starts_with(pattern.substr(0, pattern.size() - 1))
                                        : packet.interface == pattern);
}

/// Whether the packet meets one option of a rule; nothing for an option that is no condition.
std::optional<Tri> condition(const std::string& option, const std::string& value, const Packet& packet) {
    if (option == "-s")
        return inNetwork(packet.source, value);
    if (option == "-d")
        return inNetwork(packet.destination, value);
    if (option == "-p")
        return triOf(value == "all" || value == (packet.igmp ? "igmp" : "udp") ||
                     value == (packet.igmp ? "2" : "17"));
    if (option == "-i" || option == "-o")
        return isInterface(packet, option == "-i", value);
    if (option == "--dport" || option == "--dports")
        return hasPort(packet, value);
    if (option == "--ctstate" || option == "--state")
        return triOf(lists(value, "NEW"));
    if (option == "--pkt-type")
        return triOf(value == "multicast");
    if (option == "--dst-type")
        return triOf(lists(value, "MULTICAST"));
    if (option == "-m" || option == "--comment" || option == "--reject-with" || option == "--log-prefix")
        return std::nullopt;
    return Tri::Maybe;
}

Verdict verdictOf(const std::string& target, bool isGoto, bool isChain) {
    if (target == "ACCEPT")
        return Verdict::Accept;
    if (target == "DROP" || target == "REJECT")
        return Verdict::Drop;
    if (target == "RETURN")
        return Verdict::Return;
    return !isChain ? Verdict::Continue : isGoto ? Verdict::Goto : Verdict::Jump;
}

Rule parseRule(const std::string& line, const std::string& tool, const std::string& table,
               const Chains& chains, const Packet& packet) {
    Rule rule{Tri::Yes, Verdict::Continue, "", tool + " rule \"" + line + "\""};
    std::istringstream words(line);
    std::string option;
    words >> option >> option; // -A CHAIN
    bool negate = false;
    while (words >> option) {
        if (option == "!") {
            negate = true;
            continue;
        }
        std::string value;
        const int next = (words >> std::ws).peek();
        if ((next != '-' && next != '!') || option == "--comment")
            words >> std::quoted(value);
        if (option == "-j" || option == "-g") {
            rule.target = table + " " + value;
            rule.verdict = verdictOf(value, option == "-g", chains.contains(rule.target));
        } else if (const auto met = condition(option, value, packet)) {
            rule.matches = both(rule.matches, negated(*met, negate));
        }
        negate = false;
    }
    return rule;
}

bool hooked(const std::string& chain, const Packet& packet) {
    return packet.outgoing ? chain == "OUTPUT" || chain == "POSTROUTING"
                           : chain == "PREROUTING" || chain == "INPUT";
}

} // namespace

Chains parseIptables(const std::string& saved, const std::string& tool, const Packet& packet) {
    Chains chains;
    std::string table;
    const std::string match = packet.igmp ? " -p igmp" : " -d " + networkOf(packet);
    for (const std::string& line : parts(saved, '\n')) {
        std::istringstream words(line);
        std::string name;
        std::string policy;
        if (line.starts_with("*")) {
            table = line.substr(1);
        } else if (line.starts_with(":") && words.ignore() >> name >> policy) {
            chains[table + " " + name] = {hooked(name, packet),
                                          policy == "DROP",
                                          "policy of " + tool + " chain " + name + " (table " + table + ")",
                                          tool + " -t " + table + " -I " + name + match + " -j ACCEPT",
                                          {}};
        } else if (line.starts_with("-A ") && words >> policy >> name) {
            if (const auto chain = chains.find(table + " " + name); chain != chains.end())
                chain->second.rules.push_back(parseRule(line, tool, table, chains, packet));
        }
    }
    return chains;
}

} // namespace doctor
