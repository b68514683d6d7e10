#include "endpoints.h"
#include "json.h"
#include "search.h"
#include "table.h"

#include <RadarWatch/radarstream.h>
#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <regex>
#include <utility>

namespace {

using namespace std::chrono_literals;
using radar::Statistics;
using radar::StreamEvent;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kSilentSeconds = 3; // until it is said that nothing arrives
constexpr std::size_t kMaxSources = 1000;

static_assert(kEndpointNames[radar::ImageControl].endpoint == &RadarAddress::imageCtrl &&
              kEndpointNames[radar::Original].endpoint == &RadarAddress::imageOriginal);

struct Options {
    SearchOptions search;
    std::string name;
    int stream = 0;
    std::string endpoint = "image";
    std::string sequence; // empty: none is told
    double seconds = 0;   // 0: until stopped
    bool json = false;
};

/// What came in a span of time, usually a second.
struct Second {
    Seconds duration{};
    long datagrams = 0;
    long bytes = 0;
    int smallest = 0; // bytes; 0 where there was no datagram
    int largest = 0;
    Seconds longestGap{};                // without a datagram
    std::map<std::string, long> sources; // datagrams by address and port; kMaxSources of them
    bool hasMoreSources = false;         // than those
    std::vector<StreamEvent> events;

    void count(const std::string& source, long some) {
        if (const auto known = sources.find(source); known != sources.end())
            known->second += some;
        else if (sources.size() < kMaxSources)
            sources.emplace(source, some);
        else
            hasMoreSources = true;
    }
    /// All but the events.
    void add(const Second& other) {
        if (other.datagrams > 0)
            smallest = datagrams == 0 ? other.smallest : std::min(smallest, other.smallest);
        largest = std::max(largest, other.largest);
        duration += other.duration;
        datagrams += other.datagrams;
        bytes += other.bytes;
        longestGap = std::max(longestGap, other.longestGap);
        for (const auto& [source, some] : other.sources)
            count(source, some);
        hasMoreSources |= other.hasMoreSources;
    }
};

/// Counts what the stream's thread brings; next() belongs to another one.
class Counter {
public:
    void take(const radar::Datagram& datagram) {
        const auto now = Clock::now();
        const int size = static_cast<int>(datagram.size);
        const std::lock_guard lock(m_mutex);
        m_current.smallest = m_current.datagrams == 0 ? size : std::min(m_current.smallest, size);
        m_current.largest = std::max(m_current.largest, size);
        ++m_current.datagrams;
        m_current.bytes += size;
        m_current.longestGap = std::max<Seconds>(m_current.longestGap, now - std::exchange(m_last, now));
        m_current.count(
            std::string(net::transAddr(datagram.source)) + ":" + std::to_string(datagram.sourcePort), 1);
    }
    void take(const StreamEvent& event) {
        const std::lock_guard lock(m_mutex);
        m_current.events.push_back(event);
    }
    /// What came since the last call.
    Second next() {
        const auto now = Clock::now();
        const std::lock_guard lock(m_mutex);
        Second second = std::exchange(m_current, {});
        second.longestGap = std::max<Seconds>(second.longestGap, now - m_last);
        second.duration = now - std::exchange(m_since, now);
        return second;
    }

private:
    std::mutex m_mutex; // guards what follows
    Second m_current;
    Clock::time_point m_last = Clock::now();
    Clock::time_point m_since = m_last;
};

/// Where datagrams were lost. Of the network that is known where a sequence was told; what comes late is no
/// longer missing.
struct Losses {
    long socket = 0;
    long interface = 0;
    long missing = 0;
    long repeated = 0;
    long late = 0;

    Losses() = default;
    Losses(const Statistics& from, const Statistics& to)
        : socket(difference(from.droppedAtSocket, to.droppedAtSocket)),
          interface(difference(from.droppedAtInterface, to.droppedAtInterface)),
          missing(difference(from.missing, to.missing)), repeated(difference(from.repeated, to.repeated)),
          late(difference(from.reordered, to.reordered)) {}

private:
    static long difference(std::uint64_t from, std::uint64_t to) { return static_cast<long>(to - from); }
};

// -------------------------------------------------------------------------------------------- the command
// line

int channelOf(const std::string& endpoint) {
    const auto* const known = std::ranges::find(kEndpointNames, endpoint, &EndpointName::name);
    return static_cast<int>(known - std::begin(kEndpointNames));
}

std::optional<radar::StreamOptions::Sequence> sequenceOf(const std::string& text) {
    static const std::regex pattern("([0-9]{1,5})(:([1-8])(be|le)?)?");
    std::smatch parts;
    if (!std::regex_match(text, parts, pattern))
        return std::nullopt;
    radar::StreamOptions::Sequence sequence;
    sequence.offset = std::stoul(parts[1]);
    if (parts[3].matched)
        sequence.width = std::stoul(parts[3]);
    sequence.bigEndian = parts[4] != "le";
    return sequence;
}

std::string checkSequence(const std::string& text) {
    return sequenceOf(text)
               ? ""
               : "'" + text + "' is no place of a number: OFFSET, OFFSET:BYTES or OFFSET:BYTESle";
}

RadarEndpoint chosenEndpoint(const radar::Radar& radar, const Options& options) {
    const std::string name = printable(radar.name);
    if (options.stream >= static_cast<int>(radar.streams.size()))
        throw Failure(kNothingFound, name + " has " +
                                         (radar.streams.size() == 1
                                              ? "one stream, number 0"
                                              : "streams 0 to " + std::to_string(radar.streams.size() - 1)));
    const RadarEndpoint endpoint = radar.streams[static_cast<std::size_t>(options.stream)].*
                                   kEndpointNames[channelOf(options.endpoint)].endpoint;
    if (!isAnnounced(endpoint))
        throw Failure(kNothingFound, name + " does not announce its endpoint " + options.endpoint);
    return endpoint;
}

// ---------------------------------------------------------------------------------------------------- its
// words

std::string place(const StreamEvent& event) {
    return endpointText(event.endpoint) + " on " + printable(event.interface);
}

std::string sentence(const StreamEvent& event, const std::string& name) {
    using Kind = StreamEvent::Kind;
    using Why = StreamEvent::Why;
    switch (event.kind) {
    case Kind::Started:
        return "listening at " + place(event);
    case Kind::Moved:
        return (event.why == Why::Endpoint    ? name + " has moved"
                : event.why == Why::Interface ? "the interface was replaced"
                                              : "the local address has changed") +
               ("; listening at " + place(event));
    case Kind::Silent:
        return "nothing comes any more, and " + name + " still announces itself" +
               (event.why == Why::OthersJoined
                    ? "; others on this computer are in the group (" + std::to_string(event.others) +
                          "), so it is not joined again"
                    : "");
    case Kind::Resumed:
        return event.why == Why::SwitchForgot ? "data come again since the group was joined again: a switch "
                                                "had forgotten it (switch-forgets)"
                                              : "data come again";
    case Kind::Stopped:
        return event.why == Why::LocalAddress ? "no local address leads to " + name + " any more"
               : event.why == Why::RadarLeft  ? name + " is gone; waiting for it"
                                              : name + " announces no such endpoint any more; waiting for it";
    case Kind::Refused:
        return "cannot listen at " + place(event) + ": " + std::strerror(event.error);
    }
    return "";
}

nlohmann::ordered_json toJson(const StreamEvent& event) {
    constexpr const char* kKinds[] = {"started", "moved", "silent", "resumed", "stopped", "refused"};
    constexpr const char* kWhys[] = {nullptr,     "endpoint",   "interface",    "localAddress",
                                     "radarLeft", "noEndpoint", "switchForgot", "othersJoined"};
    nlohmann::ordered_json object{{"kind", kKinds[static_cast<int>(event.kind)]}};
    if (const char* const why = kWhys[static_cast<int>(event.why)])
        object["why"] = why;
    object["endpoint"] = toJson(NetAddress(event.endpoint));
    object["interface"] = event.interface;
    if (event.error != 0)
        object["error"] = std::strerror(event.error);
    return object;
}

nlohmann::ordered_json toJson(const Second& second, const Losses& losses, bool hasSequence, bool total) {
    nlohmann::ordered_json document = jsonDocument();
    document["total"] = total;
    document["seconds"] = second.duration.count();
    document["datagrams"] = second.datagrams;
    document["bytes"] = second.bytes;
    document["smallest"] = second.smallest;
    document["largest"] = second.largest;
    document["longestGapSeconds"] = second.longestGap.count();
    document["dropped"] = losses.socket;
    document["droppedAtInterface"] = losses.interface;
    if (hasSequence) {
        document["missing"] = losses.missing;
        document["repeated"] = losses.repeated;
        document["late"] = losses.late;
    }
    constexpr std::size_t kListed = 16;
    document["senders"] = second.sources.size();
    document["moreSenders"] = second.hasMoreSources;
    document["sources"] = nlohmann::ordered_json::array();
    for (const auto& [source, count] : second.sources) {
        if (document["sources"].size() == kListed)
            break;
        document["sources"].push_back({{"endpoint", source}, {"datagrams", count}});
    }
    if (!total) {
        document["events"] = nlohmann::ordered_json::array();
        for (const StreamEvent& event : second.events)
            document["events"].push_back(toJson(event));
    }
    return document;
}

constexpr const char* kHeading = "SEC   DATAGRAMS        BYTES        SIZES       GAP  DROPS SENDER";

std::string senderCount(const Second& second) {
    return (second.hasMoreSources ? "over " : "") + std::to_string(second.sources.size()) + " senders";
}

/// At most 80 columns.
std::string line(const Second& second, const Losses& losses, const std::string& label) {
    const std::string sizes =
        second.datagrams == 0 ? "-" : std::to_string(second.smallest) + ".." + std::to_string(second.largest);
    const double gap = second.longestGap.count();
    const bool isLong = gap >= 10; // more milliseconds than the column takes
    char text[160];
    std::snprintf(text, sizeof text, "%-5s%8.0f/s %7.1f kB/s %12s %6.1f %-2s %6ld ", label.c_str(),
                  static_cast<double>(second.datagrams) / second.duration.count(),
                  static_cast<double>(second.bytes) / second.duration.count() / 1000, sizes.c_str(),
                  isLong ? gap : gap * 1000, isLong ? "s" : "ms", losses.socket);
    if (second.sources.empty())
        return text + std::string("-");
    return text + (second.sources.size() == 1 ? second.sources.begin()->first : senderCount(second));
}

/// Who several senders are, as far as that is short.
std::string senderLines(const Second& total) {
    constexpr std::size_t kListed = 8;
    if (total.sources.size() < 2 || total.sources.size() > kListed)
        return "";
    std::string text;
    for (const auto& [source, datagrams] : total.sources)
        text += "  " + padded(source, 22) + counted(static_cast<std::uint64_t>(datagrams), "datagram") + "\n";
    return text;
}

/// How evenly it came, and where it was lost.
std::string summaryLines(const Statistics& statistics, const Losses& losses, bool hasSequence) {
    if (statistics.datagrams < 2)
        return "";
    char text[200];
    std::snprintf(text, sizeof text,
                  "  gaps: half within %.3f ms, 99 %% within %.3f ms, the longest %.1f ms\n",
                  Seconds(statistics.medianGap).count() * 1000, Seconds(statistics.gap99).count() * 1000,
                  Seconds(statistics.longestGap).count() * 1000);
    std::string lines = text;
    std::snprintf(text, sizeof text, "  lost: %ld at this socket, %ld at the interface", losses.socket,
                  losses.interface);
    lines += text;
    if (hasSequence) {
        std::snprintf(text, sizeof text, ", %ld before that\n  %ld came twice, %ld late",
                      std::max(0L, losses.missing - losses.socket), losses.repeated, losses.late);
        lines += text;
    }
    return lines + "\n";
}

// ------------------------------------------------------------------------------------------------------
// running

int listen(const Options& options, Output& output) {
    Search search(options.search);
    const radar::Radar radar = search.find(options.name);
    const RadarEndpoint endpoint = chosenEndpoint(radar, options);
    const std::string name = printable(radar.name);
    tell("radarctl: listening to " + options.endpoint + " of " + name + ", stream " +
         std::to_string(options.stream) + ": " + endpointText(endpoint) + " on " +
         printable(search.watch().localAddress().interface) + "; Ctrl-C ends\n");
    radar::StreamOptions streamOptions;
    streamOptions.number = options.stream;
    streamOptions.sequence = sequenceOf(options.sequence);
    const bool hasSequence = streamOptions.sequence.has_value();
    Counter counter;
    const radar::Stream stream(
        search.watch(), radar.name, channelOf(options.endpoint),
        [&](const radar::Datagram& datagram) { counter.take(datagram); },
        [&](const StreamEvent& event) { counter.take(event); }, streamOptions);
    if (!options.json)
        output.write(output.styled(Output::Style::Heading, kHeading) + "\n");
    const auto start = Clock::now();
    const auto end = options.seconds > 0
                         ? start + std::chrono::duration_cast<Clock::duration>(Seconds(options.seconds))
                         : Clock::time_point::max();
    Second total;
    Statistics statistics;
    bool saidWhere = true; // above
    bool saidSilent = false;
    bool ends = false;
    for (int seconds = 1; !ends; ++seconds) {
        ends =
            search.pauseUntil(std::min(start + seconds * Clock::duration(1s), end)) == Search::End::Stopped ||
            Clock::now() >= end;
        // Who was suspended counts on from now: of what came meanwhile there is one line.
        seconds = std::max(seconds, static_cast<int>((Clock::now() - start) / Clock::duration(1s)));
        const Second second = counter.next();
        const Statistics before = std::exchange(statistics, stream.statistics());
        total.add(second);
        for (const StreamEvent& event : second.events)
            if (!std::exchange(saidWhere, false) || event.kind != StreamEvent::Kind::Started)
                tell("radarctl: " + sentence(event, name) + "\n");
        const Losses losses(before, statistics);
        output.write(options.json ? jsonText(toJson(second, losses, hasSequence, false), true)
                                  : line(second, losses, std::to_string(seconds)) + "\n");
        if (total.datagrams == 0 && (seconds >= kSilentSeconds || ends) && !std::exchange(saidSilent, true))
            tell("radarctl: nothing arrives; radarctl doctor looks for the reason\n");
    }
    const Losses losses({}, statistics);
    if (options.json) {
        nlohmann::ordered_json document = toJson(total, losses, hasSequence, true);
        document["medianGapSeconds"] = Seconds(statistics.medianGap).count();
        document["gap99Seconds"] = Seconds(statistics.gap99).count();
        output.write(jsonText(document, true));
    } else {
        output.write(line(total, losses, "all") + "\n" + senderLines(total) +
                     summaryLines(statistics, losses, hasSequence));
    }
    return total.datagrams > 0 ? kFound : kNothingFound;
}

std::string checkEndpoint(const std::string& text) {
    std::string names;
    for (const EndpointName& known : kEndpointNames) {
        if (text == known.name)
            return "";
        names += std::string(names.empty() ? "" : ", ") + known.name;
    }
    return "'" + text + "' is no endpoint: " + names;
}

} // namespace

void addListen(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command(
        "listen", "Follow an endpoint of a radar wherever it goes and show, second by second, what arrives",
        [options](Output& output) { return listen(*options, output); });
    syntax.required("name", options->name, "NAME", "The radar's name as list prints it");
    syntax.required("stream", options->stream, "STREAM", "The stream's number, from 0",
                    checkWholeNumber(0, 1, "is no stream: 0 or 1"));
    syntax.option("--endpoint", options->endpoint, "ENDPOINT",
                  "image (default), image-control, image-state, arpa, arpa-control, arpa-state or original",
                  checkEndpoint);
    syntax.option(
        "--sequence", options->sequence, "OFFSET[:BYTES[be|le]]",
        "Where a number stands (BYTES: 4be unless given) that grows by one a datagram: what the network lost",
        checkSequence);
    syntax.option("--seconds", options->seconds, "S", "End after so many seconds",
                  checkSeconds(0.1, "duration"));
    addSearchOptions(syntax, options->search);
    syntax.flag("--json", options->json, "Print each second, and the total, as a line of JSON");
}
