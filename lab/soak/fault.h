/// @file
/// A fault: how it is made, what the library must do meanwhile, and the function that makes it and measures.
#pragma once

#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace soak {

class Testbed;

/// One measured value. The requirement is that it does not exceed its limit.
struct Figure {
    std::string what; ///< with its unit: "s until the display hears"
    double value;
    double limit = std::numeric_limits<double>::infinity(); ///< without a limit it is only reported
};
using Figures = std::vector<Figure>;

/// A requirement that has no figure does not hold.
class RequirementFailed : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What a fault asks of the machine.
enum class Load {
    Light,     ///< hardly any processor time: many are tried at once, each on a LAN of its own
    Heavy,     ///< nothing is tried beside it
    ManyHosts, ///< heavy, and on a LAN with the 48 additional hosts
};

struct Fault {
    const char* name; ///< on the command line
    const char* title;
    const char* procedure;
    const char* requirement;
    Figures (*run)(Testbed&);
    Load load = Load::Light;
};

// The faults of each source file.
std::span<const Fault> interfaceFaults();
std::span<const Fault> lossFaults();
std::span<const Fault> hostFaults();
std::span<const Fault> tcpFaults();
std::span<const Fault> clockFaults();
std::span<const Fault> floodFaults();
std::span<const Fault> surroundingFaults();

} // namespace soak
