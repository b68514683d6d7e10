/// @file
/// Looking for radars, as every subcommand of a display does it.
#pragma once

#include "command.h"
#include "listing.h"
#include "loop.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// Which local address leads to the radars; neither given: as profile.ini says, or a search.
struct LocalOptions {
    std::string address;
    std::string interface;
};
/// Refuses an empty name, which a script has where it has not found an interface.
std::string checkInterface(const std::string& name);
void addLocalOptions(Syntax& syntax, LocalOptions& options);
/// @throws Failure for what this computer does not have
/// @return network order; 0: neither was given
unsigned int localAddress(const LocalOptions& options);
/// The same. @throws also std::system_error, where this computer allows no socket
unsigned int checkedLocalAddress(const LocalOptions& options);

struct SearchOptions {
    LocalOptions local;
    double timeout = 15; // seconds; a search without a configured address takes 6 to 12
};
void addSearchOptions(Syntax& syntax, SearchOptions& options);

/// Looks for radars until enough is known. Progress is shown on standard error where that is a terminal.
class Search {
public:
    /// @throws Failure for local options that do not fit this computer, std::system_error where it has no
    /// socket
    explicit Search(const SearchOptions& options);

    enum class End { Enough, TimedOut, Stopped };
    /// Gives the hosts a second to answer, and shows @p enough the entries of the list; again until it says
    /// so.
    End until(const std::function<bool(const std::vector<radar::Radar>&)>& enough);

    /// Waits. @return TimedOut, or Stopped
    End pauseUntil(std::chrono::steady_clock::time_point moment);

    /// The entry of that name, as it is or as printable() shows it. @throws Failure that tells which there
    /// are instead
    radar::Radar find(const std::string& name);

    /// What it knows is as of the end of the last of these calls.
    radar::Watch& watch() { return m_watch; }
    Loop& loop() { return m_loop; }

private:
    void takeEvents();

    Loop m_loop; // before anything that starts threads
    radar::Watch m_watch;
    double m_timeout; // seconds
};
