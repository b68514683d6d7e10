/// @file
/// Network management of the machine.
#pragma once

#include <string>

namespace net {

class __attribute__((visibility("default"))) tNetIPHelper {
public:
    /// Runs a shell command and waits for its end. Any thread; no state.
    /// @param cmd  handed to the shell as it stands
    /// @param show false discards what the command writes
    /// @return true when the command ended with status 0; then "@" and the command are printed as one line
    static bool SystemCmd(std::string cmd, bool show);
};

} // namespace net
