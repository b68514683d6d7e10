/// @file
/// Text that others wrote, made fit to be printed.
#pragma once

#include <string>
#include <string_view>

namespace net::detail {

/// @p text with what can move a terminal's cursor or forge a line as "\xNN": bytes below 0x20, 0x7F, and
/// U+0080 to U+009F in UTF-8. Nothing else is changed.
std::string escaped(std::string_view text);

} // namespace net::detail
