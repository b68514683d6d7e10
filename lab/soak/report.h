/// @file
/// What the faults' trials have shown, on standard output and in the page that keeps the table.
#pragma once

#include "trial.h"

#include <cstdio>
#include <string>
#include <vector>

namespace soak {

/// All trials of one fault.
struct Trials {
    Fault fault;
    std::vector<Result> results;
};

/// The lines that the program prints. They go where standard output goes when the object is made.
class Report {
public:
    Report();
    ~Report() { std::fclose(m_output); }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    __attribute__((format(printf, 2, 3))) void say(const char* format, ...) const;
    void begin(const Fault& fault) const;
    /// @return whether all requirements hold
    bool end(const Result& result) const;

private:
    FILE* m_output;
};

/// How busy the machine is, in words: a busy machine makes figures worse.
std::string machineState();

/// Puts the trials in place of the table with which a page ends.
/// @param conditions under which they were made, in words
void writeTable(const std::string& page, const std::vector<Trials>& table, const std::string& conditions);

} // namespace soak
