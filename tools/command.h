/// @file
/// What every subcommand of radarctl has in common.
#pragma once

#include "output.h"

#include <CLI/CLI.hpp>

#include <functional>

enum ExitCode { kFound = 0, kNothingFound = 1, kUsage = 2 };

/// Runs the subcommand that the command line names. @return its exit code
using Run = std::function<int(Output&)>;

/// Each adds its subcommand to @p app and leaves in @p chosen what is to run when it is called.
void addHost(CLI::App& app, Run& chosen);
void addList(CLI::App& app, Run& chosen);
void addWatch(CLI::App& app, Run& chosen);
