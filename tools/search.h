/// @file
/// Looking for radars, as every subcommand of a display does it.
#pragma once

#include "command.h"
#include "display.h"
#include "loop.h"

#include <functional>
#include <string>
#include <vector>

/// Which local address leads to the radars; neither given: as profile.ini says, or a search.
struct LocalOptions {
    std::string address;
    std::string interface;
};
void addLocalOptions(Syntax& syntax, LocalOptions& options);
/// @throws Failure for what this computer does not have
/// @return network order; 0: neither was given
unsigned int localAddress(const LocalOptions& options);

struct SearchOptions {
    LocalOptions local;
    double timeout = 15; // seconds; a search without a configured address takes 6 to 12
};
void addSearchOptions(Syntax& syntax, SearchOptions& options);

/// Asks for announcements until enough is known. Progress is shown on standard error where that is a
/// terminal.
class Search {
public:
    /// @throws Failure for local options that do not fit this computer, and where it allows no socket
    explicit Search(const SearchOptions& options);

    enum class End { Enough, TimedOut, Stopped };
    /// Queries, gives the hosts a second to answer, and shows @p enough what is known; again until it says
    /// so.
    End until(const std::function<bool(const std::vector<Radar>&)>& enough);

    /// The radar of that name, as it is or as printable() shows it. @throws Failure that tells which radars
    /// there are instead
    Radar find(const std::string& name);

    Loop& loop() { return m_loop; }
    Display& display() { return m_display; }
    double timeout() const { return m_timeout; }

private:
    Loop m_loop; // before anything that starts threads
    Display m_display;
    double m_timeout; // seconds
};
