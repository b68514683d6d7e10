/// @file
/// What every subcommand of radarctl has in common.
#pragma once

#include "command_line.h"
#include "output.h"

#include <stdexcept>
#include <string>

enum ExitCode {
    kFound = 0,
    kNothingFound = 1, ///< or a check failed
    kUsage = 2,
    kNotAllowed = 3, ///< by the machine
    kShortage = 4,   ///< of threads, descriptors or memory; may pass
};

/// Ends a subcommand with a line on standard error.
struct Failure : std::runtime_error {
    Failure(ExitCode exitCode, const std::string& text) : std::runtime_error(text), code(exitCode) {}
    ExitCode code;
};

/// Each adds its subcommand.
void addDoctor(CommandLine& line);
void addExport(CommandLine& line);
void addHost(CommandLine& line);
void addInfo(CommandLine& line);
void addInterfaces(CommandLine& line);
void addList(CommandLine& line);
void addListen(CommandLine& line);
void addRenumber(CommandLine& line);
void addRecord(CommandLine& line);
void addReplay(CommandLine& line);
void addReset(CommandLine& line);
void addShow(CommandLine& line);
void addWatch(CommandLine& line);
