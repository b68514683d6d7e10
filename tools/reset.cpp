#include "endpoints.h"
#include "search.h"

namespace {

int reset(const SearchOptions& options, Output& output) {
    Search search(options);
    // The address is enough: whoever hears the command need not be a radar that announces itself.
    if (search.until([](const std::vector<Radar>&) { return true; }) == Search::End::Stopped)
        throw Failure(kNothingFound, "stopped before anything was sent");
    if (search.display().localIp() == 0)
        throw Failure(kNothingFound,
                      "nothing was sent: no local address leads to a radar (name one with --local, "
                      "or see radarctl doctor)");
    MultiRadarClient::getInstance()->resetRadar();
    output.write("sent the reset command (20 A1) to " + endpointText(wire::kNegotiation) + " on " +
                 std::string(net::transAddr(search.display().localIp())) + "; hosts do not answer it\n");
    return kFound;
}

} // namespace

void addReset(CommandLine& line) {
    const auto options = std::make_shared<SearchOptions>();
    Syntax syntax = line.command("reset", "Send the reset command to all radars",
                                 [options](Output& output) { return reset(*options, output); });
    addSearchOptions(syntax, *options);
}
