#include "command.h"

#include <clocale>
#include <cstdio>

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names may be written in any script
    CLI::App app{"Radars on the local network: act as a radar host, or see them as a display does",
                 "radarctl"};
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Show the library's diagnostics on standard error");
    app.require_subcommand(1);
    app.fallthrough();
    Run run;
    addHost(app, run);
    addList(app, run);
    addWatch(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        const bool named = !app.get_subcommands().empty();
        std::fprintf(stderr, "radarctl: %s (see radarctl --help)\n",
                     named ? error.what() : "name one of the commands host, list and watch");
        return kUsage;
    }
    Output output(verbose);
    return run(output);
}
