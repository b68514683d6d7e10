#include "firewall.h"

#include <arpa/inet.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

namespace doctor {
namespace {

using nlohmann::json;

/// What stands on the left of a comparison; with neither, it is not known.
struct Value {
    std::optional<unsigned int> number;
    std::string text;
    bool absent = false; ///< the packet has no such field
};

std::optional<unsigned int> hostOrder(const std::string& address) {
    in_addr parsed{};
    if (::inet_pton(AF_INET, address.c_str(), &parsed) != 1)
        return std::nullopt;
    return ntohl(parsed.s_addr);
}

Value payload(const json& payload, const Packet& packet) {
    const std::string protocol = payload.value("protocol", "");
    const std::string field = payload.value("field", "");
    const bool transport = protocol == "udp" || protocol == "th";
    if (protocol.empty() || protocol == "ether" || (protocol == "th" && packet.igmp))
        return {};
    if (protocol == "ip" && field == "daddr")
        return {packet.destination, ""};
    if (protocol == "ip" && field == "saddr" && packet.source != 0)
        return {packet.source, ""};
    if (protocol == "ip" && field == "protocol")
        return {packet.igmp ? 2U : 17U, packet.igmp ? "igmp" : "udp"};
    if (protocol == "igmp" && field == "type" && packet.igmp)
        return {{}, packet.outgoing ? "membership-report-v3" : "membership-query"};
    if (transport && packet.igmp)
        return {{}, "", true};
    if (transport && field == "dport")
        return {packet.port, ""};
    return {{}, "", !transport && protocol != "ip" && !(packet.igmp && protocol == "igmp")};
}

Value meta(const std::string& key, const Packet& packet) {
    const bool in = key == "iifname" || key == "iif";
    if (in || key == "oifname" || key == "oif")
        return {{}, in == packet.outgoing ? "" : packet.interface, in == packet.outgoing};
    if (key == "l4proto")
        return {packet.igmp ? 2U : 17U, packet.igmp ? "igmp" : "udp"};
    if (key == "nfproto")
        return {{}, "ipv4"};
    if (key == "protocol")
        return {{}, "ip"};
    if (key == "pkttype")
        return {{}, "multicast"};
    return {};
}

Value valueOf(const json& left, const Packet& packet) {
    if (left.contains("payload"))
        return payload(left["payload"], packet);
    if (left.contains("meta"))
        return meta(left["meta"].value("key", ""), packet);
    if (left.contains("&"))
        return {{}, "", valueOf(left["&"].at(0), packet).absent};
    if (left.contains("ct") && left["ct"].value("key", "") == "state")
        return {{}, "new"}; // nobody answers a multicast from its own group
    if (left.contains("fib") && left["fib"].value("result", "") == "type" &&
        left["fib"].value("flags", json()) == json{"daddr"})
        return {{}, "multicast"};
    return {};
}

/// Whether the value is, or is in, what stands on the right.
Tri isIn(const Value& value, const json& right, const std::map<std::string, json>& sets) {
    if (value.absent)
        return Tri::No;
    if (!value.number && value.text.empty())
        return Tri::Maybe;
    if (right.is_array()) {
        Tri best = Tri::No;
        for (const json& element : right)
            best = std::max(best, isIn(value, element, sets));
        return best;
    }
    if (right.is_number())
        return value.number ? triOf(*value.number == right.get<unsigned int>()) : Tri::Maybe;
    if (right.is_string()) {
        const auto name = right.get<std::string>();
        if (name.starts_with("@")) {
            const auto set = sets.find(name.substr(1));
            return set == sets.end() ? Tri::Maybe : isIn(value, set->second, sets);
        }
        if (!value.text.empty())
            return triOf(name.ends_with("*") ? value.text.starts_with(name.substr(0, name.size() - 1))
                                             : value.text == name);
        const auto address = hostOrder(name);
        return address ? triOf(*value.number == *address) : Tri::Maybe;
    }
    if (right.contains("set"))
        return isIn(value, right["set"], sets);
    if (right.contains("elem"))
        return isIn(value, right["elem"].at("val"), sets);
    if (right.contains("prefix") && value.number) {
        const auto base = hostOrder(right["prefix"].value("addr", ""));
        const int length = right["prefix"].value("len", 32);
        const unsigned int mask = length <= 0 || length > 32 ? 0 : ~0U << (32 - length);
        return base ? triOf((*value.number & mask) == (*base & mask)) : Tri::Maybe;
    }
    if (right.contains("range") && value.number) {
        const auto bound = [](const json& end) {
            return end.is_number() ? std::optional(end.get<unsigned int>())
                                   : hostOrder(end.get<std::string>());
        };
        const auto first = bound(right["range"].at(0));
        const auto last = bound(right["range"].at(1));
        return first && last ? triOf(*first <= *value.number && *value.number <= *last) : Tri::Maybe;
    }
    return Tri::Maybe;
}

Tri compare(const json& match, const Packet& packet, const std::map<std::string, json>& sets) {
    const json& left = match.at("left");
    const Value value = valueOf(left, packet);
    if (value.absent && !left.contains("meta"))
        return Tri::No; // the kernel looks at the protocol first, whatever the comparison
    const std::string op = match.value("op", "");
    if (op != "==" && op != "in" && op != "!=")
        return Tri::Maybe;
    return negated(isIn(value, match.at("right"), sets), op == "!=");
}

/// Sets the verdict that a statement gives. @return false when it gives none
bool takeVerdict(const json& statement, const std::string& table, Rule& rule) {
    if (statement.contains("accept"))
        rule.verdict = Verdict::Accept;
    else if (statement.contains("drop") || statement.contains("reject"))
        rule.verdict = Verdict::Drop;
    else if (statement.contains("return"))
        rule.verdict = Verdict::Return;
    else if (statement.contains("jump") || statement.contains("goto")) {
        const char* kind = statement.contains("jump") ? "jump" : "goto";
        rule.verdict = *kind == 'j' ? Verdict::Jump : Verdict::Goto;
        rule.target = table + " " + statement[kind].value("target", "");
    } else
        return false;
    return true;
}

/// The keys and verdicts of a map, which may have a name and stand elsewhere.
json pairsOf(const json& map, const std::map<std::string, json>& sets) {
    if (!map.is_string())
        return map.value("set", json::array());
    const auto named = sets.find(map.get<std::string>().substr(1)); // behind an @
    return named != sets.end() ? named->second : json::array();
}

/// Whether the rest of a rule is met by every packet that meets this statement.
bool letsAllPass(const json& statement) {
    return statement.contains("counter") || statement.contains("log") || statement.contains("mangle") ||
           statement.contains("notrack");
}

void addRules(const json& rule, const std::string& table, const Packet& packet,
              const std::map<std::string, json>& sets, std::vector<Rule>& rules) {
    const std::string name = "nft rule " + table + " " + rule.value("chain", "") + " handle " +
                             std::to_string(rule.value("handle", 0));
    Rule result{Tri::Yes, Verdict::Continue, "", name};
    for (const json& statement : rule.value("expr", json::array())) {
        if (statement.contains("match")) {
            result.matches = both(result.matches, compare(statement["match"], packet, sets));
        } else if (statement.contains("vmap")) {
            const json& vmap = statement["vmap"];
            for (const json& pair : pairsOf(vmap.at("data"), sets)) {
                Rule entry = result;
                entry.matches = both(entry.matches, isIn(valueOf(vmap.at("key"), packet), pair.at(0), sets));
                if (takeVerdict(pair.at(1), table, entry))
                    rules.push_back(entry);
            }
        } else if (takeVerdict(statement, table, result)) {
            rules.push_back(result);
            return;
        } else if (!letsAllPass(statement)) {
            result.matches = both(result.matches, Tri::Maybe); // a limit, say
        }
    }
}

/// Whether a packet meets the chains of a hook.
bool passes(const std::string& hook, const Packet& packet) {
    return packet.outgoing ? hook == "output" || hook == "postrouting" || hook == "egress"
                           : hook == "ingress" || hook == "prerouting" || hook == "input";
}

/// The devices that each chain of the hooks ingress and egress stands at, by table and name.
std::map<std::string, std::set<std::string>> devicesOf(const std::string& ruleset) {
    std::map<std::string, std::set<std::string>> devices;
    std::istringstream lines(ruleset);
    std::string table;
    std::string chain;
    for (std::string line; std::getline(lines, line);) {
        std::ranges::replace_if(
            line, [](char character) { return std::strchr("\"{},=", character) != nullptr; }, ' ');
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "table" && words >> table >> word)
            table += " " + word;
        else if (word == "chain" && words >> word)
            chain = table + " " + word;
        else if (word == "type")
            for (bool listed = false; words >> word && word != "priority";
                 listed = listed || word.starts_with("device"))
                if (listed)
                    devices[chain].insert(word);
    }
    return devices;
}

} // namespace

Chains parseNft(const std::string& text, const std::string& forPeople, const Packet& packet) {
    Chains chains;
    std::map<std::string, std::map<std::string, json>> sets; // by table and name
    const json ruleset = json::parse(text);
    const auto devices = devicesOf(forPeople);
    for (const json& item : ruleset.at("nftables")) {
        if (!item.is_object() || item.empty())
            continue;
        const json& content = item.begin().value();
        const std::string family = content.value("family", "");
        const std::string table = family + " " + content.value("table", "");
        if (family != "ip" && family != "inet" && family != "netdev")
            continue;
        if (item.contains("set") || item.contains("map")) {
            sets[table][content.value("name", "")] = content.value("elem", json::array());
        } else if (item.contains("chain")) {
            const std::string name = table + " " + content.value("name", "");
            const auto standsAt = devices.find(name);
            const bool hooked = content.contains("hook") && passes(content["hook"], packet) &&
                                (standsAt == devices.end() || standsAt->second.contains(packet.interface));
            chains[name] = {hooked,
                            content.value("policy", "") == "drop",
                            "nft chain " + name,
                            "nft insert rule " + name + " " +
                                (packet.igmp ? "ip protocol igmp" : "ip daddr " + networkOf(packet)) +
                                " accept",
                            {}};
        }
    }
    for (const json& item : ruleset["nftables"]) {
        if (!item.contains("rule"))
            continue;
        const json& rule = item["rule"];
        const std::string table = rule.value("family", "") + " " + rule.value("table", "");
        if (const auto chain = chains.find(table + " " + rule.value("chain", "")); chain != chains.end())
            addRules(rule, table, packet, sets[table], chain->second.rules);
    }
    return chains;
}

} // namespace doctor
