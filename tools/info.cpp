#include "command.h"
#include "json.h"
#include "recorded.h"
#include "table.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <cstdio>
#include <sstream>

namespace {

using namespace radar::recording;
using nlohmann::ordered_json;

struct Options {
    std::string file;
    bool json = false;
};

constexpr std::size_t kListedComments = 50; // as text; JSON has all

double inSeconds(Time time) {
    return std::chrono::duration<double>(time).count();
}

/// What an endpoint is, by the announcements in the recording.
using Labels = std::map<Contents::Key, std::set<std::string>>;

Labels labelsOf(const Contents& contents) {
    Labels labels;
    for (const wire::Group& group : {wire::kDiscovery, wire::kNegotiation, wire::kBeacon})
        labels[{net::transAddr(group.address), net::HtoNs(group.port)}].insert(group.use);
    for (const Contents::Radar& radar : contents.radars())
        for (const Contents::Radar::Change& change : radar.changes)
            for (const RadarEndpointPlace& place : endpointsOf(change.announcement)) {
                std::string label =
                    printable(radar.name) + " information device " + std::to_string(place.number);
                for (const EndpointName& name : kEndpointNames)
                    if (place.field != nullptr && place.field == name.endpoint)
                        label = printable(radar.name) + " " + name.name + " " + std::to_string(place.number);
                labels[Contents::keyOf(place.endpoint)].insert(label);
            }
    return labels;
}

std::set<int> idsOf(const Contents::Radar& radar) {
    std::set<int> ids;
    for (const Contents::Radar::Change& change : radar.changes)
        ids.insert(protocol::announcedHostId(change.announcement));
    ids.erase(0);
    return ids;
}

ordered_json toJson(const Contents::Stream& stream) {
    ordered_json sources = ordered_json::array();
    for (const std::uint32_t source : stream.sources)
        sources.push_back(net::transAddr(source));
    return {{"datagrams", stream.datagrams},
            {"bytes", stream.bytes},
            {"first", timeText(stream.first)},
            {"last", timeText(stream.last)},
            {"longestGapSeconds", inSeconds(stream.longestGap)},
            {"sources", sources}};
}

ordered_json toJson(const Contents::Radar& radar) {
    ordered_json object;
    addName(object, radar.name);
    object["hostIds"] = idsOf(radar);
    object["source"] = net::transAddr(radar.source);
    object["announcements"] = radar.announcements;
    object["present"] = ordered_json::array();
    for (const Contents::Radar::Presence& presence : radar.presences)
        object["present"].push_back({{"first", timeText(presence.first)}, {"last", timeText(presence.last)}});
    return object;
}

std::string asJson(const Recorded& recorded) {
    ordered_json document = jsonDocument();
    document["total"] = toJson(recorded.contents.total());
    document["broken"] = recorded.broken.empty() ? ordered_json(nullptr) : ordered_json(recorded.broken);
    document["radars"] = ordered_json::array();
    for (const Contents::Radar& radar : recorded.contents.radars())
        document["radars"].push_back(toJson(radar));
    const Labels labels = labelsOf(recorded.contents);
    document["streams"] = ordered_json::array();
    for (const auto& [key, stream] : recorded.contents.streams()) {
        ordered_json object = {{"endpoint", ::toJson(NetAddress{key.first, key.second})}};
        object["uses"] = ordered_json::array();
        if (const auto label = labels.find(key); label != labels.end())
            object["uses"] = label->second;
        object.update(toJson(stream));
        document["streams"].push_back(object);
    }
    document["tcp"] = ordered_json::array();
    for (const auto& [peer, bytes] : recorded.notes.tcp)
        document["tcp"].push_back(
            {{"peer", ::toJson(NetAddress{peer.first, peer.second})}, {"bytes", bytes.bytes}});
    document["interfaces"] = ordered_json::array();
    for (const auto& [number, statistics] : recorded.notes.statistics)
        document["interfaces"].push_back(
            {{"name", number < recorded.notes.interfaces.size() ? recorded.notes.interfaces[number] : ""},
             {"dropped", statistics.dropped},
             {"droppedBySystem", statistics.droppedBySystem}});
    document["comments"] = ordered_json::array();
    for (const Notes::Comment& comment : recorded.notes.comments)
        document["comments"].push_back({{"time", timeText(comment.time)}, {"text", comment.text}});
    document["leftOut"] = {{"fragments", recorded.counts.fragments},
                           {"cut", recorded.counts.cut},
                           {"other", recorded.counts.other}};
    return jsonText(document, false);
}

template <class... Values>
std::string format(const char* pattern, Values... values) {
    char text[200];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string radarLines(const Contents& contents, const Output& output) {
    std::string text =
        output.styled(Output::Style::Heading, "RADAR                  ID      FROM             PRESENT") +
        "\n";
    for (const Contents::Radar& radar : contents.radars()) {
        std::string ids;
        for (const int id : idsOf(radar))
            ids += (ids.empty() ? "" : ",") + std::to_string(id);
        text += padded(printable(radar.name), 23) + padded(ids.empty() ? "-" : ids, 8) +
                padded(net::transAddr(radar.source), 17);
        std::string times;
        for (const Contents::Radar::Presence& presence : radar.presences)
            times += (times.empty() ? "" : ", ") + format("%.1f..%.1f s",
                                                          inSeconds(presence.first - contents.total().first),
                                                          inSeconds(presence.last - contents.total().first));
        text += times + "\n";
    }
    return text;
}

std::string streamLines(const Contents& contents, const Output& output) {
    const Labels labels = labelsOf(contents);
    std::string text = output.styled(Output::Style::Heading,
                                     "GROUP                  DATAGRAMS     RATE      BYTES      GAP  USE") +
                       "\n";
    for (const auto& [key, stream] : contents.streams()) {
        std::string uses;
        if (const auto label = labels.find(key); label != labels.end())
            for (const std::string& use : label->second)
                uses += (uses.empty() ? "" : ", ") + use;
        const double length = inSeconds(stream.last - stream.first);
        text += padded(endpointText(NetAddress{key.first, key.second}), 22) +
                format("%10llu %6.0f/s %10llu %6.0fms  ", static_cast<unsigned long long>(stream.datagrams),
                       length > 0 ? static_cast<double>(stream.datagrams - 1) / length : 0,
                       static_cast<unsigned long long>(stream.bytes), inSeconds(stream.longestGap) * 1000) +
                (uses.empty() ? "-" : uses) + "\n";
    }
    return text;
}

std::string noteLines(const Recorded& recorded) {
    std::string text;
    for (const auto& [peer, bytes] : recorded.notes.tcp)
        text += "tcp from " + endpointText(NetAddress{peer.first, peer.second}) + ": " +
                std::to_string(bytes.bytes) + " bytes\n";
    std::uint64_t dropped = 0;
    for (const auto& [number, statistics] : recorded.notes.statistics)
        dropped += statistics.dropped;
    text += "dropped while it was recorded: " +
            (recorded.notes.statistics.empty() ? "not known" : std::to_string(dropped)) + "\n";
    if (const std::string left = leftOut(recorded.counts); !left.empty())
        text += "left out: " + left + "\n";
    const auto& comments = recorded.notes.comments;
    for (std::size_t i = 0; i < std::min(kListedComments, comments.size()); ++i) {
        std::string label =
            format("%9.1f s  ", inSeconds(comments[i].time - recorded.contents.total().first));
        std::istringstream lines(comments[i].text); // several, of one packet
        for (std::string line; std::getline(lines, line); label.assign(label.size(), ' '))
            text += label + printable(line) + "\n";
    }
    if (comments.size() > kListedComments)
        text += "and " + std::to_string(comments.size() - kListedComments) + " more comments\n";
    return text;
}

int show(const Options& options, Output& output) {
    const Recorded recorded = lookThrough(options.file);
    const Contents::Stream& total = recorded.contents.total();
    output.write(options.json
                     ? asJson(recorded)
                     : format("%.3f s from %s: %s, %s\n", inSeconds(total.last - total.first),
                              timeText(total.first).c_str(), counted(total.datagrams, "datagram").c_str(),
                              counted(total.bytes, "byte").c_str()) +
                           radarLines(recorded.contents, output) + streamLines(recorded.contents, output) +
                           noteLines(recorded));
    if (recorded.broken.empty())
        return kFound;
    std::fprintf(stderr, "radarctl: %s\n", printable(recorded.broken).c_str());
    return kNothingFound;
}

} // namespace

void addInfo(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax =
        line.command("info", "Show what a recording holds: radars, streams, times, rates, gaps, drops",
                     [options](Output& output) { return show(*options, output); });
    syntax.required("file", options->file, "FILE",
                    "A recording: of radarctl, or pcap or pcapng of other programs");
    syntax.flag("--json", options->json, "Print one JSON object");
}
