#include "doctor/doctor.h"
#include "json.h"
#include "search.h"
#include "table.h"

namespace {

struct Options {
    SearchOptions search;
    bool json = false;
};

void print(const std::vector<Radar>& radars, const std::string& interface, const Output& output) {
    output.write(output.styled(Output::Style::Heading, kTableHeading + "LAST HEARD") + "\n");
    for (const Radar& radar : radars) {
        output.write(tableLine(radar, interface) + ageText(radar.age) + "\n");
        for (const std::string& line : endpointLines(radar))
            output.write(line + "\n");
    }
}

void printJson(const std::vector<Radar>& radars, unsigned int localIp, const std::string& interface,
               const Output& output) {
    nlohmann::ordered_json document = jsonDocument();
    document["localAddress"] =
        localIp != 0 ? nlohmann::ordered_json(net::transAddr(localIp)) : nlohmann::ordered_json(nullptr);
    document["interface"] = interface;
    document["radars"] = nlohmann::ordered_json::array();
    for (const Radar& radar : radars)
        document["radars"].push_back(toJson(radar));
    output.write(jsonText(document, false));
}

int list(const Options& options, Output& output) {
    Search search(options.search);
    std::vector<Radar> radars;
    const Search::End end = search.until([&](const std::vector<Radar>& heard) {
        radars = heard;
        return !radars.empty();
    });
    const unsigned int localIp = search.display().localIp();
    const std::string interface = net::localIfaName(localIp);
    if (options.json)
        printJson(radars, localIp, interface, output);
    else if (!radars.empty())
        print(radars, interface, output);
    if (!radars.empty())
        return kFound;
    if (end == Search::End::Stopped)
        throw Failure(kNothingFound, "stopped before a radar was found");
    std::fprintf(stderr, "radarctl: no radar found within %g s\n", options.search.timeout);
    const unsigned int wanted = localAddress(options.search.local);
    const std::string only = wanted != 0 ? net::localIfaName(wanted) : "";
    if (const auto cause = doctor::likelyCause(only, search.loop()))
        std::fprintf(stderr, "radarctl: most likely: %s\n", cause->c_str());
    std::fprintf(stderr, "radarctl: radarctl doctor looks closer\n");
    return kNothingFound;
}

} // namespace

void addList(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("list", "Find the radars once and print a table of them",
                                 [options](Output& output) { return list(*options, output); });
    addSearchOptions(syntax, options->search);
    syntax.flag("--json", options->json, "Print JSON");
}
