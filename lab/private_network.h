/// @file
/// A network of one's own: nothing that runs in it can reach the machine's network, and nothing of it is left
/// when it ends.
#pragma once

namespace lab {

/// Exit status of a process that is not allowed to make namespaces.
inline constexpr int kNotPermitted = 3;

/// Moves the rest of the calling program into namespaces of its own: user (unless the caller may do without),
/// network (only a loopback interface, up), process, and mount (a /proc and /sys to match, and an empty /run:
/// room for "ip netns", and no way to the machine's own services).
///
/// Returns in a child process; the caller's process stays behind, forwards SIGINT, SIGTERM and SIGHUP, and
/// exits with the child's status (128 + the signal that ended it). When the child ends, or either of the two
/// is killed, every process in the namespace is killed with it, and with the last process the network is
/// gone.
///
/// Call it before any thread is started. Where the system refuses, it prints one line on standard error
/// and exits with kNotPermitted.
void enterPrivateNetwork();

} // namespace lab
