#include "command.h"
#include "privileges.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

struct Options {
    bool verbose = false;
    std::string color = "auto";
    std::string profile;
};

std::string checkProfile(const std::string& directory) {
    std::error_code error;
    return std::filesystem::is_regular_file(std::filesystem::path(directory) / "profile.ini", error)
               ? ""
               : "no profile.ini in '" + directory + "'";
}

void addOptions(CLI::App& app, Options& options) {
    app.set_version_flag("--version", "radarctl " UDPSOCKET_VERSION, "Print the version and exit");
    app.add_flag("-v,--verbose", options.verbose, "Show the library's diagnostics on standard error");
    app.add_option("--color", options.color,
                   "Colour: auto (on a terminal, unless NO_COLOR is set), always or never")
        ->check([](const std::string& text) {
            return text == "auto" || text == "always" || text == "never"
                       ? ""
                       : "'" + text + "' is no colour setting: auto, always or never";
        })
        ->type_name("WHEN");
    app.add_option("--profile", options.profile, "The directory in which profile.ini is")
        ->check(checkProfile)
        ->type_name("DIR");
}

std::string commandNames(const CLI::App& app) {
    std::string names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names may be written in any script
    CLI::App app{"Radars on the local network: see them as a display does, or act as a radar host",
                 "radarctl"};
    Options options;
    addOptions(app, options);
    app.require_subcommand(1);
    app.fallthrough();
    Run run;
    addList(app, run);
    addWatch(app, run);
    addShow(app, run);
    addListen(app, run);
    addHost(app, run);
    addRenumber(app, run);
    addReset(app, run);
    addInterfaces(app, run);
    addDoctor(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        const bool named = !app.get_subcommands().empty();
        const bool isOption = argc > 1 && argv[1][0] == '-' && app.get_subcommands().empty();
        std::fprintf(stderr, "radarctl: %s (see radarctl --help)\n",
                     named || isOption ? error.what() : ("name a command: " + commandNames(app)).c_str());
        return kUsage;
    }
    try {
        if (!options.profile.empty())
            ::setenv("INIPROFILE_DIR", options.profile.c_str(), 1);
        askForNoPassword();
        Output output(options.verbose, options.color);
        return run(output);
    } catch (const Failure& failure) {
        std::fprintf(stderr, "radarctl: %s\n", failure.what());
        return failure.code;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "radarctl: %s\n", error.what());
        return kNotAllowed;
    }
}
