/// @file
/// The library's only way to the shell, and what may become part of a command.
#pragma once

#include <UdpSocket/base/thread.h>

#include <chrono>
#include <string>

namespace net::detail {

/// Runs @p command through system() and waits for its end; what it prints is discarded unless @p show. A
/// command that ends with 0 gives the line "@command" on standard output. @return whether it did
bool runCommand(const std::string& command, bool show);

/// The same, nothing shown, for a command that nobody waits for by intention: it gets no terminal, an empty
/// signal mask and the default SIGPIPE, and is killed when @p ending is stopped or @p limit is over. It then
/// counts as failed.
bool runCommandWithin(const std::string& command, std::chrono::milliseconds limit, Pause& ending);

/// Four decimal numbers from 0 to 255 with dots between them and nothing else.
bool isDottedQuad(const std::string& text);

/// A non-empty interface name of letters, digits, '.', '_', '-', ':' and '@'.
bool isInterfaceName(const std::string& text);

} // namespace net::detail
