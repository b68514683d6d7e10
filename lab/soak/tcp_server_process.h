/// @file
/// A TCP server in a process of its own, to be killed and frozen.
#pragma once

#include <string>
#include <vector>

namespace soak {

/// The command that runs it: this program with an internal option.
std::vector<std::string> serverCommand(unsigned short port);

/// Whether the command line is that command's.
bool isServer(int argc, char** argv);

/// Serves until it is ended, and prints on standard error how many bytes it has received.
[[noreturn]] void runServer(char** argv);

} // namespace soak
