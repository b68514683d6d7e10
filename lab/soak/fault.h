/// @file
/// A fault as a row of the table: how it is made, what must hold, and the function that makes it and tells
/// what was seen.
#pragma once

#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace soak {

class Stage;

/// One thing that was measured. What must hold is that it does not pass its limit.
struct Figure {
    std::string what; ///< with its unit: "s until the display hears"
    double value;
    double atMost = std::numeric_limits<double>::infinity(); ///< without a limit it is only told
};
using Figures = std::vector<Figure>;

/// Something that must hold did not, and there is no figure for it.
class Broken : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Row {
    const char* name; ///< on the command line
    const char* fault;
    const char* made;
    const char* must;
    Figures (*run)(Stage&);
    bool crowd = false; ///< wants the 48 further hosts
};

// A family each.
std::span<const Row> interfaceRows();
std::span<const Row> lossRows();
std::span<const Row> hostRows();
std::span<const Row> tcpRows();
std::span<const Row> clockRows();
std::span<const Row> floodRows();

} // namespace soak
