#include "observation.h"

#include "../table.h"

#include <UdpSocket/protocol/radar_table.h>

#include <algorithm>
#include <cstdio>

namespace doctor {
namespace {

using namespace std::chrono_literals;

constexpr Seconds kSearchWaits = 2s; // of the search for the radars' interface, behind its query
constexpr Seconds kAgeing = std::chrono::seconds(protocol::RadarTable::kSilence);
constexpr double kEnough = 0.8;    // share of answered queries that is taken for all, on a small sample
constexpr std::size_t kSample = 3; // fewer queries say nothing about a share

std::string called(const HostKey& host) {
    return "\"" + host.name + "\" (" + text(host.source) + ")";
}

std::string milliseconds(Seconds time) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f ms", time.count() * 1000);
    return buffer;
}

std::string seconds(Seconds time) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f s", time.count());
    return buffer;
}

/// How a host answers the queries that it could hear.
struct Answering {
    std::optional<Seconds> delay; ///< of an answer, where no other display's query confuses it
    std::size_t asked = 0;        ///< queries early enough for their answers to be here
    std::size_t answered = 0;
    bool unasked = false; ///< announced itself before we asked
};

Answering answering(const Listening& listening, const HostKey& host, const HeardHost& heard) {
    Answering result;
    if (listening.queries.empty())
        return result;
    const Seconds first = listening.queries.front();
    result.unasked = heard.times.front() < first;
    std::vector<Seconds> queries = listening.queries;
    for (const ForeignQuery& query : listening.foreignQueries)
        if (query.interface == host.interface && query.time > first)
            queries.push_back(query.time);
    std::ranges::sort(queries);
    const bool alone = queries.size() == listening.queries.size();
    const auto answer = std::ranges::lower_bound(heard.times, first);
    if (alone && answer != heard.times.end()) {
        // Behind the last query nothing hides lateness; a lost first answer, too, would look like it before.
        Seconds latest{0};
        for (auto time = answer; time != heard.times.end(); ++time)
            latest = std::max(latest, *time - *std::prev(std::ranges::upper_bound(queries, *time)));
        result.delay = latest < kSearchWaits ? latest : *answer - first;
    }
    // A host that came meanwhile could not hear what was asked before: its queries count from the one that it
    // answered first.
    Seconds earliest = first;
    if (!result.unasked && answer != heard.times.end() && result.delay.value_or(0s) < kSearchWaits)
        earliest = *std::prev(std::ranges::upper_bound(queries, *answer));
    const Seconds latest = listening.duration - result.delay.value_or(0s) - 0.5s;
    result.asked = static_cast<std::size_t>(
        std::ranges::count_if(queries, [=](Seconds query) { return earliest <= query && query <= latest; }));
    result.answered = static_cast<std::size_t>(heard.times.end() - answer);
    return result;
}

void judgeAnswers(const Observation& seen, const HostKey& host, const HeardHost& heard, Report& report) {
    const Answering answers = answering(seen.listening, host, heard);
    const std::string share = std::to_string(std::min(answers.answered, answers.asked)) + " of " +
                              std::to_string(answers.asked) + " queries answered";
    const Interface* interface = seen.interface(host.interface);
    report.check("radar " + called(host),
                 "host id " + (host.id != 0 ? std::to_string(host.id) : "-") + ", through " +
                     (interface != nullptr ? interface->name : "-") + ", " + share +
                     (answers.delay ? ", at most " + milliseconds(*answers.delay) + " later" : "") +
                     (answers.unasked ? ", announced before it was asked here" : ""));
    if (seen.listening.stopped)
        return;
    if (answers.delay && *answers.delay >= kSearchWaits)
        report.find(
            Id::LateAnswers, Severity::Fault,
            called(host) + " answers so late that " +
                (*answers.delay >= kAgeing ? "displays have forgotten it by then (after 8 s)"
                                           : "a display's search, which waits 2 s, passes it by"),
            "relieve that host, or the network to it; set [Local] IP in profile.ini to do without the search",
            "first answer after " + seconds(*answers.delay));
    if (answers.asked >= kSample &&
        static_cast<double>(answers.answered) < kEnough * static_cast<double>(answers.asked))
        report.find(Id::LostAnswers, Severity::Warning, called(host) + " answers only some of the queries",
                    "look for losses on the way to it: cable, switch, radio link, a host under load", share);
}

/// Hosts by what tells them apart on the network: the interface does not.
std::vector<HostKey> distinctHosts(const Listening& listening) {
    std::set<std::tuple<unsigned int, std::string, int>> known;
    std::vector<HostKey> hosts;
    for (const auto& [host, heard] : listening.hosts)
        if (known.insert({host.source, host.name, host.id}).second)
            hosts.push_back(host);
    return hosts;
}

/// "a, b and c", and how many more there are behind the first few.
std::string together(const std::vector<HostKey>& hosts) {
    constexpr std::size_t kNamed = 4;
    std::string list;
    for (std::size_t i = 0; i < std::min(hosts.size(), kNamed); ++i)
        list += (i == 0 ? "" : i + 1 == hosts.size() ? " and " : ", ") + called(hosts[i]);
    return hosts.size() <= kNamed ? list : list + " and " + std::to_string(hosts.size() - kNamed) + " more";
}

/// Two computers that take each other's traffic.
void judgeAddresses(const Observation& seen, Report& report) {
    for (const auto& [where, addresses] : seen.listening.hardware) {
        const auto& [index, source] = where;
        const Interface* interface = seen.interface(index);
        const bool own = seen.isOwn(source);
        std::set<std::string> others = addresses;
        if (own)
            std::erase_if(others,
                          [&](const std::string& hardware) { return seen.ownHardware.contains(hardware); });
        if (interface == nullptr || others.size() < (own ? 1U : 2U))
            continue;
        std::string list;
        for (const std::string& hardware : others)
            list += (list.empty() ? "" : ", ") + hardware;
        report.find(Id::SameAddress, Severity::Fault,
                    own ? "another computer at " + interface->name + " has this one's address " + text(source)
                        : "radar hosts at " + interface->name + " share the address " + text(source),
                    "give each an address of its own", text(source) + " belongs to " + list);
    }
}

void judgeDoubles(const Listening& listening, Report& report) {
    std::map<int, std::vector<HostKey>> byId;
    std::map<std::string, std::vector<HostKey>> byName;
    for (const HostKey& host : distinctHosts(listening)) {
        if (host.id != 0)
            byId[host.id].push_back(host);
        byName[host.name].push_back(host);
    }
    for (const auto& [id, hosts] : byId)
        if (hosts.size() > 1)
            report.find(Id::SameId, Severity::Fault,
                        together(hosts) + " hold one host id, so their streams share groups and ports",
                        "radarctl renumber " + shellWord(hosts.front().name) +
                            ": everyone who holds that id draws a new one",
                        "all announce the endpoints of host id " + std::to_string(id));
    for (const auto& [name, hosts] : byName) {
        std::set<int> ids;
        std::set<unsigned int> sources;
        for (const HostKey& host : hosts) {
            ids.insert(host.id);
            sources.insert(host.source);
        }
        if (ids.size() > 1 && sources.size() > 1) // with one id between them, that is what was said above
            report.find(Id::SameName, Severity::Fault,
                        together(hosts) + " have one name, so displays show one of them, in turn",
                        "give each a name of its own",
                        std::to_string(sources.size()) + " addresses, " + std::to_string(ids.size()) +
                            " host ids");
    }
}

void judgeNegotiation(const Listening& listening, Report& report) {
    std::string contested;
    for (const auto& [id, count] : listening.objections)
        contested +=
            (contested.empty() ? "" : ", ") + std::to_string(count) + " for id " + std::to_string(id);
    std::string restless;
    for (const auto& [source, ids] : listening.claims)
        if (ids.size() > 1)
            restless += (restless.empty() ? "" : ", ") + text(source) + " claimed " +
                        std::to_string(ids.size()) + " ids";
    report.check("host ids", "objections: " + (contested.empty() ? "none" : contested));
    if (!contested.empty() && !restless.empty())
        report.find(Id::IdContest, Severity::Warning,
                    "host ids are objected to again and again, so hosts cannot settle",
                    "find who objects (tcpdump -n host " + std::string(wire::kNegotiation.address) +
                        ") and stop it, or give the host another id",
                    "objections " + contested + "; " + restless);
}

/// A display hears a host on its own computer only where both let their multicast loop back.
void judgeHostHere(const Observation& seen, Report& report) {
    bool heardIt = false;
    bool heardOthers = false;
    for (const auto& [host, heard] : seen.listening.hosts)
        (seen.isOwn(host.source) ? heardIt : heardOthers) = true;
    const bool asks = seen.profile.multicastLoop;
    if (!seen.hostHere() || (asks && heardIt))
        return;
    const std::string where = heardIt ? "of displays here"
                              : asks  ? "of that host"
                                      : "of both, the host and the displays here";
    report.find(Id::HostHere,
                heardOthers || seen.discoveryRoute.interface.empty() ? Severity::Note : Severity::Fault,
                "a radar host runs on this machine, and displays here do not hear it",
                "set [Local] MulticastLoop = true in the profile.ini " + where,
                std::string("a socket of host-id negotiation, MulticastLoop = ") + (asks ? "true" : "false") +
                    " here, " + (heardIt ? "its answers come back" : "no answer of it comes back"));
}

} // namespace

Report judgeHosts(const Observation& seen) {
    Report report;
    for (const auto& [host, heard] : seen.listening.hosts)
        judgeAnswers(seen, host, heard, report);
    judgeAddresses(seen, report);
    judgeDoubles(seen.listening, report);
    judgeNegotiation(seen.listening, report);

    std::set<unsigned int> displays;
    for (const ForeignQuery& query : seen.listening.foreignQueries)
        displays.insert(query.source);
    std::string names;
    for (const unsigned int display : displays)
        names += (names.empty() ? "" : ", ") + text(display);
    if (!displays.empty())
        report.find(Id::OtherDisplay, Severity::Note, "another display asks the radars, too", "",
                    std::to_string(seen.listening.foreignQueries.size()) + " queries from " + names);
    judgeHostHere(seen, report);
    return report;
}

Report judgeSilence(const Observation& seen) {
    Report report;
    const Listening& listening = seen.listening;
    const bool fixed = seen.profile.radarIp != 0;
    if (seen.radarHeard() || fixed || listening.stopped)
        return report;
    const std::string measured = std::to_string(listening.queries.size()) + " queries in " +
                                 seconds(listening.duration) + ", no answer, " +
                                 std::to_string(listening.beacons) + " beacons";
    std::string dropped;
    for (const Interface& interface : seen.interfaces)
        for (const unsigned int source : undelivered(seen, interface.index))
            dropped += (dropped.empty() ? "" : ", ") + text(source) + " at " + interface.name;
    if (!dropped.empty())
        report.find(
            Id::NoRadar, Severity::Fault, "announcements reach this machine, and no program on it",
            "look for rules that redirect them (nft list ruleset), socket filters (systemd's IPAddressDeny, "
            "say) and checksum errors (/proc/net/snmp)",
            "on the wire: " + dropped);
    else if (!seen.hostHere())
        report.find(Id::NoRadar, Severity::Fault,
                    seen.only.empty() ? "nobody answers, and nothing on this machine explains it"
                                      : "nobody answers on " + seen.only + ", which alone was looked at",
                    "look whether a radar host runs, and whether its switch passes multicast", measured);
    int igmpQueries = 0;
    bool wire = !listening.results.empty();
    for (const auto& [index, result] : listening.results) {
        igmpQueries += result.igmpQueries;
        wire = wire && result.wire;
    }
    if (wire && igmpQueries == 0)
        report.find(Id::NoQuerier, Severity::Note,
                    "no IGMP querier was heard: a switch that snoops lets groups dry up without one",
                    "switch the querier on, or snooping off; queriers ask every 125 s: radarctl doctor "
                    "--seconds 130 makes sure",
                    "no IGMP query in " + seconds(listening.duration));
    return report;
}

} // namespace doctor
