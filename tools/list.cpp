#include "doctor/doctor.h"
#include "json.h"
#include "search.h"
#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <cstdio>

namespace {

struct Options {
    SearchOptions search;
    bool endpoints = false;
    bool json = false;
};

void print(const std::vector<radar::Radar>& radars, const std::string& interface, bool endpoints,
           const Output& output) {
    const int columns = output.isTerminal() ? output.terminalSize().columns : 0;
    const TableLayout layout(interface, columns, false);
    const auto shared = sharedIds(radars);
    output.write(output.styled(Output::Style::Heading, layout.heading()) + "\n");
    for (const radar::Radar& radar : radars) {
        const bool sharesId = shared.contains(radar.hostId);
        const std::string line = layout.line(radar, sharesId, ageText(radar.age));
        output.write((sharesId ? output.styled(Output::Style::Bad, line) : line) + "\n");
        if (endpoints)
            for (const std::string& text : endpointLines(radar, columns))
                output.write(text + "\n");
    }
    for (const std::string& note : sharedIdNotes(shared, columns))
        tell(note + "\n");
}

void printJson(const std::vector<radar::Radar>& radars, const radar::LocalAddress& local,
               const Output& output) {
    nlohmann::ordered_json document = jsonDocument();
    addLocalAddress(document, local);
    document["radars"] = nlohmann::ordered_json::array();
    for (const radar::Radar& radar : radars)
        document["radars"].push_back(toJson(radar));
    output.write(jsonText(document, false));
}

/// What was not looked at.
std::string leftOut(const std::string& only, unsigned int localIp) {
    if (!only.empty())
        return "; only " + printable(only) + " was looked at";
    return localIp == 0 ? "; the search for the interface that leads to the radars was not over" : "";
}

int list(const Options& options, Output& output) {
    Search search(options.search);
    std::vector<radar::Radar> radars;
    const Search::End end = search.until([&](const std::vector<radar::Radar>& heard) {
        radars = heard;
        return !radars.empty();
    });
    const radar::LocalAddress local = search.watch().localAddress();
    if (options.json)
        printJson(radars, local, output);
    else if (!radars.empty())
        print(radars, local.interface, options.endpoints, output);
    if (!radars.empty())
        return kFound;
    if (end == Search::End::Stopped)
        throw Failure(kNothingFound, "stopped before a radar was found");
    const unsigned int wanted = localAddress(options.search.local);
    const std::string only = wanted != 0 ? net::localIfaName(wanted) : "";
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g s", options.search.timeout);
    tell(std::string("radarctl: no radar found within ") + seconds + leftOut(only, local.address) + "\n");
    if (const auto cause = doctor::likelyCause(only, search.loop()))
        tell("radarctl: most likely: " + printable(*cause) + "\n");
    tell("radarctl: radarctl doctor looks closer\n");
    return kNothingFound;
}

} // namespace

void addList(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("list", "Find the radars once and print a table of them",
                                 [options](Output& output) { return list(*options, output); });
    addSearchOptions(syntax, options->search);
    syntax.flag("--endpoints", options->endpoints, "Print the endpoints of image and ARPA, too");
    syntax.flag("--json", options->json, "Print JSON");
}
