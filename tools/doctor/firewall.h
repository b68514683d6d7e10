/// @file
/// Rules of the packet filter, judged for one packet.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace doctor {

/// A packet as a filter would meet it. Addresses and port are in host order.
struct Packet {
    std::string use; ///< what is lost with it
    bool igmp = false;
    bool outgoing = false;
    std::string interface;
    unsigned int source = 0; ///< 0: any
    unsigned int destination = 0;
    unsigned short port = 0;
};

/// Where a remedy lets packets pass to: all groups of the host ids where it is one of them.
std::string networkOf(const Packet& packet);

enum class Tri { No, Maybe, Yes };

inline Tri triOf(bool holds) {
    return holds ? Tri::Yes : Tri::No;
}
inline Tri both(Tri a, Tri b) {
    return a < b ? a : b;
}
inline Tri negated(Tri a, bool negate) {
    return !negate || a == Tri::Maybe ? a : a == Tri::Yes ? Tri::No : Tri::Yes;
}

enum class Verdict { Continue, Accept, Drop, Return, Jump, Goto };

struct Rule {
    Tri matches; ///< the packet that was asked about
    Verdict verdict;
    std::string target; ///< of a jump
    std::string name;
};

struct Chain {
    bool hooked = false; ///< packets come to it without a jump
    bool dropsByPolicy = false;
    std::string name;
    std::string remedy; ///< a command that lets the packet pass
    std::vector<Rule> rules;
};

/// Chains by a key that jumps name.
using Chains = std::map<std::string, Chain>;

/// @param text the same rules as nft prints them for people: its JSON leaves the devices of a chain out
/// @throws nlohmann::json::exception for text that nft does not print
Chains parseNft(const std::string& json, const std::string& text, const Packet& packet);
/// @param tool the command whose rules they are
Chains parseIptables(const std::string& saved, const std::string& tool, const Packet& packet);

struct Loss {
    std::string rule;
    std::string remedy;
    bool certain; ///< false: a condition on the way could not be judged
};
/// What drops the packet, if anything does.
std::optional<Loss> loss(const Chains& chains);

} // namespace doctor
