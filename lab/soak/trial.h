/// @file
/// One trial of a fault, on a LAN that there is already or in a process of its own.
#pragma once

#include "fault.h"

#include <UdpSocket/base/descriptor.h>

#include <sys/types.h>

#include <string>

namespace soak {

/// The result of one trial.
struct Result {
    Figures figures;
    std::string failure; ///< empty: it gave figures
};

Result runOnce(const Fault& fault, Testbed& testbed);

/// A trial in a process, a private network and on a LAN of its own, so that several can run at once. The
/// calling process has one thread, and is in a private network itself: with that the trial ends.
class Trial {
public:
    /// Starts it.
    Trial(const Fault& fault, bool full);
    Trial(Trial&&) = default;
    /// Waits for its end, once.
    Result result();

private:
    net::detail::Descriptor m_output; ///< of the process: its result as JSON
    pid_t m_process;
};

} // namespace soak
