#include "search.h"
#include "table.h"

namespace {

struct Options {
    SearchOptions search;
    std::string name;
};

int renumber(const Options& options, Output& output) {
    Search search(options.search);
    const Radar before = search.find(options.name);
    const std::string name = printable(before.name);
    if (before.hostId == 0)
        throw Failure(kNothingFound, name + " is not in the plan of host ids, so there is none to object to");
    MultiRadarClient::getInstance()->queryForAdjust(before.name.c_str());
    const std::string id = std::to_string(before.hostId);
    output.write("sent an objection to host id " + id + " to 236.6.7.4:6768 on " +
                 net::transAddr(search.display().localIp()) + "; waiting for " + name +
                 " to negotiate another\n");
    int objections = 1;
    int held = before.hostId;
    const Search::End end = search.until([&](const std::vector<Radar>& radars) {
        for (const Radar& radar : radars)
            if (radar.name == before.name)
                held = radar.hostId;
        // Again: a holder of id 1 takes the first objection after one of its own for that one's echo.
        if (held == before.hostId) {
            MultiRadarClient::getInstance()->queryForAdjust(before.name.c_str());
            ++objections;
        }
        return held != before.hostId;
    });
    const std::string sent = objections == 1 ? "" : " after " + std::to_string(objections) + " objections";
    if (end != Search::End::Enough)
        throw Failure(kNothingFound, name + " still announces host id " + id + sent);
    output.write(name + " now has host id " + std::to_string(held) + sent + "\n");
    return kFound;
}

} // namespace

void addRenumber(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("renumber", "Make a radar's host negotiate another host id",
                                 [options](Output& output) { return renumber(*options, output); });
    syntax.required("name", options->name, "NAME", "The radar's name as list prints it");
    addSearchOptions(syntax, options->search);
}
