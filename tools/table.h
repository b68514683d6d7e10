/// @file
/// Radars as text for people.
#pragma once

#include "endpoints.h"
#include "listing.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

/// @p bytes as a terminal may show it: what is not printable comes as \xNN, so that a name can neither draw
/// on the terminal nor forge a line.
std::string printable(const std::string& bytes);

/// Printable text, filled with blanks to that many columns, and at least one blank.
std::string padded(const std::string& text, int columns);

/// "1 datagram", "2 datagrams".
std::string counted(std::uint64_t number, const std::string& what);

/// Seconds with one decimal: "0.3 s ago".
std::string ageText(std::chrono::milliseconds age);

/// Host id, or "-".
std::string hostIdText(int hostId);

/// "A", "A and B", "A, B and C", "A, B, C and 5 more"; printable.
std::string inWords(const std::set<std::string>& names);

/// What a shell reads as that text, whatever is in it.
std::string shellWord(const std::string& text);

/// A table with one line an entry. Where a terminal is narrow, the time of the first sight is left out, then
/// the number of streams, and then names are cut; interface and age stay.
class TableLayout {
public:
    /// @param interface bytes of any kind; the same for every radar
    /// @param columns   of the terminal; 0: as many as it takes
    /// @param firstSeen whether there is a column for that
    TableLayout(const std::string& interface, int columns, bool firstSeen);

    std::string heading() const;
    /// @param sharesId another radar has the same host id, which is marked
    std::string line(const radar::Radar& entry, bool sharesId, const std::string& lastHeard,
                     const std::string& firstSeen = "") const;

private:
    std::string row(const std::string& name, const std::string& id, const std::string& streams,
                    const std::string& interface, const std::string& firstSeen,
                    const std::string& lastHeard) const;

    std::string m_interface;
    int m_interfaceWidth;
    int m_nameWidth;
    bool m_cutsNames = false;
    bool m_hasStreams = true;
    bool m_hasFirstSeen;
};

/// What to do about host ids that several radars have; a few lines.
/// @param columns of the terminal; 0: as many as it takes
std::vector<std::string> sharedIdNotes(const SharedIds& shared, int columns);

/// Image and ARPA endpoints of each stream, on two lines of at most 80 columns; on more and shorter ones
/// where the terminal is narrower.
/// @param columns of the terminal; 0: as many as it takes
std::vector<std::string> endpointLines(const radar::Radar& entry, int columns);

/// Id, streams and endpoints on one line.
std::string summary(const radar::Radar& entry);
