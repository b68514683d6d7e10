/// @file
/// What may become part of a shell command.
#pragma once

#include <string>

namespace net::detail {

/// Four decimal numbers from 0 to 255 with dots between them and nothing else.
bool isDottedQuad(const std::string& text);

/// A non-empty interface name of letters, digits, '.', '_', '-', ':' and '@'.
bool isInterfaceName(const std::string& text);

} // namespace net::detail
