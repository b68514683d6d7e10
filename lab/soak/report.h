/// @file
/// What the faults' tries have shown, on standard output and in the page that keeps the table.
#pragma once

#include "fault.h"

#include <cstdio>
#include <string>
#include <vector>

namespace soak {

/// All tries of one fault.
struct Tries {
    Row row;
    std::vector<Figures> seen;
    std::vector<std::string> failures; ///< those that gave no figures
};

/// How one try went.
struct Result {
    Figures figures;
    std::string failure; ///< empty: it gave figures
};

Result tryOnce(const Row& row, Stage& stage, Tries& tries);

/// The lines that the program prints. They go where standard output goes when the object is made.
class Report {
public:
    Report();
    ~Report() { std::fclose(m_output); }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    __attribute__((format(printf, 2, 3))) void say(const char* format, ...) const;
    void begin(const Row& row) const;
    /// @return whether all that must hold did
    bool end(const Result& result) const;

private:
    FILE* m_output;
};

/// How busy the machine is, in words: figures of a busy machine are worse than the library.
std::string machineState();

/// Puts the tries in place of the table with which a page ends.
/// @param conditions under which they were made, in words
void writeTable(const std::string& page, const std::vector<Tries>& table, const std::string& conditions);

} // namespace soak
