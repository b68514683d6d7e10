/// @file
/// What every subcommand of radarctl has in common.
#pragma once

#include "output.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>
#include <string>

enum ExitCode {
    kFound = 0,
    kNothingFound = 1, ///< or a check failed
    kUsage = 2,
    kNotAllowed = 3, ///< by the machine
};

/// Ends a subcommand with a line on standard error.
struct Failure : std::runtime_error {
    Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), code(exitCode) {}
    ExitCode code;
};

/// Runs the subcommand that the command line names. @return its exit code
using Run = std::function<int(Output&)>;

/// Each adds its subcommand to @p app and leaves in @p chosen what is to run when it is called.
void addDoctor(CLI::App& app, Run& chosen);
void addHost(CLI::App& app, Run& chosen);
void addInterfaces(CLI::App& app, Run& chosen);
void addList(CLI::App& app, Run& chosen);
void addListen(CLI::App& app, Run& chosen);
void addRenumber(CLI::App& app, Run& chosen);
void addReset(CLI::App& app, Run& chosen);
void addShow(CLI::App& app, Run& chosen);
void addWatch(CLI::App& app, Run& chosen);

/// Refuses what is no number of seconds from @p least to 3600, with the words of @p what.
std::function<std::string(const std::string&)> checkSeconds(double least, const std::string& what);
