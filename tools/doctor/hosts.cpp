#include "observation.h"

#include "../table.h"

#include <algorithm>
#include <cstdio>

namespace doctor {
namespace {

using namespace std::chrono_literals;

constexpr Seconds kSearchWaits = 2s; // of the search for the radars' interface, behind its query
constexpr Seconds kAgeing = 8s;      // after which a radar that was not heard leaves the table
constexpr double kEnough = 0.8;      // share of answered queries that is taken for all, on a small sample
constexpr std::size_t kSample = 3;   // fewer queries say nothing about a share

std::string called(const HostKey& host) {
    return "\"" + printable(host.name) + "\" (" + text(host.source) + ")";
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

Answering answering(const Listening& listening, const HostKey& host, const Hearing& hearing) {
    Answering result;
    if (listening.queries.empty())
        return result;
    const Seconds first = listening.queries.front();
    result.unasked = hearing.times.front() < first;
    std::vector<Seconds> queries = listening.queries;
    for (const ForeignQuery& query : listening.foreignQueries)
        if (query.interface == host.interface && query.time > first)
            queries.push_back(query.time);
    const bool alone = queries.size() == listening.queries.size();
    const auto answer = std::ranges::lower_bound(hearing.times, first);
    if (alone && answer != hearing.times.end()) {
        // Behind the last query nothing hides lateness; a lost first answer, too, would look like it before.
        Seconds latest{0};
        for (auto time = answer; time != hearing.times.end(); ++time)
            latest = std::max(latest, *time - *std::prev(std::ranges::upper_bound(queries, *time)));
        result.delay = latest < kSearchWaits ? latest : *answer - first;
    }
    const Seconds latest = listening.duration - result.delay.value_or(0s) - 0.5s;
    result.asked = static_cast<std::size_t>(
        std::ranges::count_if(queries, [latest](Seconds query) { return query <= latest; }));
    result.answered = static_cast<std::size_t>(hearing.times.end() - answer);
    return result;
}

void judgeAnswers(const Observation& seen, const HostKey& host, const Hearing& hearing, Report& report) {
    const Answering answers = answering(seen.listening, host, hearing);
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
    for (const auto& [host, hearing] : listening.hosts)
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

/// What a shell reads as that text, whatever is in it.
std::string shellWord(const std::string& text) {
    std::string word = "'";
    for (const char character : text)
        word += character == '\'' ? "'\\''" : std::string(1, character);
    return word + "'";
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
                        "radarctl renumber " + shellWord(printable(hosts.front().name)) +
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
                    "find who objects (tcpdump -n host 236.6.7.4) and stop it, or give the host another id",
                    "objections " + contested + "; " + restless);
}

} // namespace

Report judgeHosts(const Observation& seen) {
    Report report;
    for (const auto& [host, hearing] : seen.listening.hosts)
        judgeAnswers(seen, host, hearing, report);
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
    if (seen.hostHere() && !seen.profile.multicastLoop)
        report.find(Id::HostHere, Severity::Note,
                    "a radar host runs on this machine, and displays here do not hear it",
                    "set [Local] MulticastLoop = true in profile.ini if they shall",
                    "a socket of host-id negotiation, MulticastLoop = false");
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
        report.find(Id::NoRadar, Severity::Fault, "nobody answers, and nothing on this machine explains it",
                    "look whether a radar host runs, and whether its switch passes multicast", measured);
    int igmpQueries = 0;
    bool wire = !listening.ears.empty();
    for (const auto& [index, ear] : listening.ears) {
        igmpQueries += ear.igmpQueries;
        wire = wire && ear.wire;
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
