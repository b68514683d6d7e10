#include "datagram_counter.h"
#include "endpoints.h"
#include "json.h"
#include "search.h"
#include "table.h"

#include <algorithm>

namespace {

using namespace std::chrono_literals;

constexpr int kSilentSeconds = 3; // until it is said that nothing arrives

struct Options {
    SearchOptions search;
    std::string name;
    int stream = 0;
    std::string endpoint = "image";
    double seconds = 0; // 0: until stopped
    bool json = false;
};

RadarEndpoint chosenEndpoint(const radar::Radar& radar, const Options& options) {
    const std::string name = printable(radar.name);
    if (options.stream >= static_cast<int>(radar.streams.size()))
        throw Failure(kNothingFound, name + " has " +
                                         (radar.streams.size() == 1
                                              ? "one stream, number 0"
                                              : "streams 0 to " + std::to_string(radar.streams.size() - 1)));
    const auto* const known = std::ranges::find(kEndpointNames, options.endpoint, &EndpointName::name);
    const RadarEndpoint endpoint = radar.streams[static_cast<std::size_t>(options.stream)].*known->endpoint;
    if (!isAnnounced(endpoint))
        throw Failure(kNothingFound, name + " does not announce its endpoint " + options.endpoint);
    if (endpoint.type != 0)
        throw Failure(kNothingFound, options.endpoint + " of " + name + " is served over TCP (" +
                                         endpointText(endpoint) + "); only groups can be listened to");
    return endpoint;
}

nlohmann::ordered_json toJson(const DatagramCounter::Second& second, bool total) {
    nlohmann::ordered_json document = jsonDocument();
    document["total"] = total;
    document["seconds"] = second.duration.count();
    document["datagrams"] = second.datagrams;
    document["bytes"] = second.bytes;
    document["smallest"] = second.smallest;
    document["largest"] = second.largest;
    document["longestGapSeconds"] = second.longestGap.count();
    document["dropped"] = second.dropped ? nlohmann::ordered_json(*second.dropped) : nlohmann::ordered_json();
    constexpr std::size_t kListed = 16;
    document["senders"] = second.sources.size();
    document["moreSenders"] = second.hasMoreSources;
    document["sources"] = nlohmann::ordered_json::array();
    for (const auto& [source, count] : second.sources) {
        if (document["sources"].size() == kListed)
            break;
        document["sources"].push_back({{"endpoint", source}, {"datagrams", count}});
    }
    return document;
}

constexpr const char* kHeading = "SEC   DATAGRAMS        BYTES        SIZES       GAP  DROPS SENDER";

std::string senderCount(const DatagramCounter::Second& second) {
    return (second.hasMoreSources ? "over " : "") + std::to_string(second.sources.size()) + " senders";
}

/// At most 80 columns.
std::string line(const DatagramCounter::Second& second, const std::string& label) {
    const std::string sizes =
        second.datagrams == 0 ? "-" : std::to_string(second.smallest) + ".." + std::to_string(second.largest);
    char text[160];
    std::snprintf(text, sizeof text, "%-5s%8.0f/s %7.1f kB/s %12s %6.1f ms %6s ", label.c_str(),
                  static_cast<double>(second.datagrams) / second.duration.count(),
                  static_cast<double>(second.bytes) / second.duration.count() / 1000, sizes.c_str(),
                  second.longestGap.count() * 1000,
                  second.dropped ? std::to_string(*second.dropped).c_str() : "-");
    if (second.sources.empty())
        return text + std::string("-");
    return text + (second.sources.size() == 1 ? second.sources.begin()->first : senderCount(second));
}

/// Who several senders are, as far as that is short.
std::string senderLines(const DatagramCounter::Second& total) {
    constexpr std::size_t kListed = 8;
    if (total.sources.size() < 2 || total.sources.size() > kListed)
        return "";
    std::string text;
    for (const auto& [source, datagrams] : total.sources)
        text += "  " + padded(source, 22) + std::to_string(datagrams) + " datagrams\n";
    return text;
}

int listen(const Options& options, Output& output) {
    Search search(options.search);
    const radar::Radar radar = search.find(options.name);
    const RadarEndpoint endpoint = chosenEndpoint(radar, options);
    std::fprintf(stderr, "radarctl: listening to %s of %s, stream %d: %s on %s; Ctrl-C ends\n",
                 options.endpoint.c_str(), printable(radar.name).c_str(), options.stream,
                 endpointText(endpoint).c_str(), printable(search.watch().localAddress().interface).c_str());
    DatagramCounter counter(endpoint, search.watch().localAddress().address);
    if (!options.json)
        output.write(output.styled(Output::Style::Heading, kHeading) + "\n");
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto end = options.seconds > 0 ? start + std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<double>(options.seconds))
                                         : Clock::time_point::max();
    bool stopped = false;
    for (int seconds = 1; !stopped && Clock::now() < end; ++seconds) {
        const auto until = std::min(start + seconds * Clock::duration(1s), end);
        while (!stopped && Clock::now() < until)
            stopped =
                search.loop().wait(std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now())) ==
                Loop::Event::Stop;
        const DatagramCounter::Second second = counter.next();
        output.write(options.json ? jsonText(toJson(second, false), true)
                                  : line(second, std::to_string(seconds)) + "\n");
        const bool ends = stopped || Clock::now() >= end;
        if (counter.total().datagrams == 0 &&
            (seconds == kSilentSeconds || (ends && seconds < kSilentSeconds)))
            std::fprintf(stderr, "radarctl: nothing arrives; radarctl doctor looks for the reason\n");
    }
    const DatagramCounter::Second total = counter.total();
    output.write(options.json ? jsonText(toJson(total, true), true)
                              : line(total, "all") + "\n" + senderLines(total));
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
    Syntax syntax =
        line.command("listen", "Join an endpoint of a radar and show, second by second, what arrives",
                     [options](Output& output) { return listen(*options, output); });
    syntax.required("name", options->name, "NAME", "The radar's name as list prints it");
    syntax.required("stream", options->stream, "STREAM", "The stream's number, from 0",
                    checkWholeNumber(0, 1, "is no stream: 0 or 1"));
    syntax.option("--endpoint", options->endpoint, "ENDPOINT",
                  "image (default), image-control, image-state, arpa, arpa-control, arpa-state or original",
                  checkEndpoint);
    syntax.option("--seconds", options->seconds, "S", "End after so many seconds",
                  checkSeconds(0.1, "duration"));
    addSearchOptions(syntax, options->search);
    syntax.flag("--json", options->json, "Print each second, and the total, as a line of JSON");
}
