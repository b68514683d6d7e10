#include "command.h"
#include "looping_profile.h"
#include "privileges.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <optional>
#include <system_error>

namespace {

struct Options {
    bool verbose = false;
    std::string color = "auto";
    std::string profile;
    bool loop = false;
};

std::string checkProfile(const std::string& directory) {
    std::error_code error;
    return std::filesystem::is_regular_file(std::filesystem::path(directory) / "profile.ini", error)
               ? ""
               : "no profile.ini in '" + directory + "'";
}

std::string checkColor(const std::string& text) {
    return text == "auto" || text == "always" || text == "never"
               ? ""
               : "'" + text + "' is no colour setting: auto, always or never";
}

void addOptions(Syntax syntax, Options& options) {
    syntax.flag("-v,--verbose", options.verbose, "Show the library's diagnostics on standard error");
    syntax.option("--color", options.color, "WHEN",
                  "Colour: auto (on a terminal, unless NO_COLOR is set), always or never", checkColor);
    syntax.option("--profile", options.profile, "DIR", "The directory in which profile.ini is", checkProfile);
    syntax.flag(
        "--loop", options.loop,
        "As MulticastLoop = true in profile.ini: for a radar host and a display on one computer, both");
}

/// Of what others may give back.
bool isShortage(const std::error_code& code) {
    for (const std::errc passing :
         {std::errc::resource_unavailable_try_again, std::errc::too_many_files_open,
          std::errc::too_many_files_open_in_system, std::errc::not_enough_memory, std::errc::no_buffer_space})
        if (code == passing)
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names may be written in any script
    CommandLine line("radarctl",
                     "Radars on the local network: see them as a display does, or act as a radar host",
                     UDPSOCKET_VERSION);
    Options options;
    addOptions(line.common(), options);
    for (const auto add : {addList, addWatch, addShow, addListen, addHost, addRenumber, addReset,
                           addInterfaces, addExport, addDoctor, addRecord, addReplay, addInfo})
        add(line);
    int exitCode = kUsage;
    const auto run = line.parse(argc, argv, exitCode);
    if (!run)
        return exitCode;
    try {
        if (!options.profile.empty())
            ::setenv("INIPROFILE_DIR", options.profile.c_str(), 1);
        std::optional<LoopingProfile> looping;
        if (options.loop)
            looping.emplace();
        leaveRoutesAlone();
        Output output(options.verbose, options.color);
        return (*run)(output);
    } catch (const ReaderGone&) {
        return kFound;
    } catch (const Failure& failure) {
        tell(std::string("radarctl: ") + failure.what() + "\n");
        return failure.code;
    } catch (const std::system_error& error) {
        tell(std::string("radarctl: ") + error.what() + "\n");
        return isShortage(error.code()) ? kShortage : kNotAllowed;
    } catch (const std::bad_alloc&) {
        std::fputs("radarctl: out of memory\n", stderr); // allocates nothing
        return kShortage;
    } catch (const std::exception& error) {
        tell(std::string("radarctl: ") + error.what() + "\n");
        return kNotAllowed;
    }
}
