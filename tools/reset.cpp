#include "endpoints.h"
#include "search.h"

#include <UdpSocket/udpsocket.h>

namespace {

int reset(const SearchOptions& options, Output& output) {
    Search search(options);
    // The address is enough: whoever hears the command need not be a radar that announces itself.
    if (search.until([](const std::vector<radar::Radar>&) { return true; }) == Search::End::Stopped)
        throw Failure(kNothingFound, "stopped before anything was sent");
    if (!search.watch().reset())
        throw Failure(kNothingFound,
                      "nothing was sent: no local address leads to a radar (name one with --local, "
                      "or see radarctl doctor)");
    output.write("sent the reset command (20 A1) to " + endpointText(wire::kNegotiation) + " on " +
                 net::transAddr(search.watch().localAddress().address) + "; hosts do not answer it\n");
    return kFound;
}

} // namespace

void addReset(CommandLine& line) {
    const auto options = std::make_shared<SearchOptions>();
    Syntax syntax = line.command("reset", "Send the reset command to all radars",
                                 [options](Output& output) { return reset(*options, output); });
    addSearchOptions(syntax, *options);
}
