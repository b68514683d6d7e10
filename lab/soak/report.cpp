#include "report.h"

#include "testbed.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace soak {

namespace {

const std::string kMarker = "<!-- what follows is made by scripts/soak -->\n";

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text,
                  value == std::floor(value) ? "%.0f"
                  : value < 0.1              ? "%.2g"
                                             : "%.1f",
                  value);
    return text;
}

bool holds(const Figure& figure) {
    return figure.value <= figure.limit;
}

/// "1.0 / 2.0 / 3.1 s until listed; ...": the least, the median and the most of each figure.
std::string summary(const Trials& trials) {
    std::vector<Figures> tries;
    std::string failures;
    for (const auto& [figures, failure] : trials.results)
        if (failure.empty())
            tries.push_back(figures);
        else
            failures += "; **failed**: " + failure;
    std::string text;
    for (size_t i = 0; !tries.empty() && i < tries.front().size(); ++i) {
        std::vector<double> values;
        for (const Figures& one : tries)
            values.push_back(one[i].value);
        std::ranges::sort(values);
        text += "; " + number(values.front());
        if (values.size() > 1)
            text += " / " + number(values[values.size() / 2]) + " / " + number(values.back());
        text += " " + tries.front()[i].what;
        const double limit = tries.front()[i].limit;
        if (const auto beyond = std::ranges::count_if(values, [&](double value) { return value > limit; });
            beyond > 0)
            text += " (**" + std::to_string(beyond) + " of " + std::to_string(values.size()) + " beyond " +
                    number(limit) + "**)";
    }
    return (text + failures).substr(2);
}

} // namespace

Report::Report() : m_output(::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w")) {
    if (m_output == nullptr)
        throw std::system_error(errno, std::generic_category(), "standard output");
}

void Report::say(const char* format, ...) const {
    va_list values;
    va_start(values, format);
    std::vfprintf(m_output, format, values);
    va_end(values);
    std::fflush(m_output);
}

void Report::begin(const Fault& fault) const {
    say("%-22s ", fault.name);
}

bool Report::end(const Result& result) const {
    if (!result.failure.empty()) {
        say("FAILED: %s\n", result.failure.c_str());
        return false;
    }
    std::string text;
    for (const Figure& figure : result.figures)
        text += (text.empty() ? "" : "; ") + number(figure.value) + " " + figure.what +
                (holds(figure) ? "" : " (at most " + number(figure.limit) + ")");
    const bool allHold = std::ranges::all_of(result.figures, holds);
    say("%s: %s\n", allHold ? "ok" : "FAILED", text.c_str());
    return allHold;
}

std::string machineState() {
    double load = 0; // of the last minute: processes that run or want to
    ::getloadavg(&load, 1);
    return std::to_string(std::thread::hardware_concurrency()) + " processors, a load of " + number(load) +
           " at the start";
}

void writeTable(const std::string& page, const std::vector<Trials>& table, const std::string& conditions) {
    std::ostringstream text;
    text << std::ifstream(page).rdbuf();
    const std::string before = text.str().substr(0, text.str().find(kMarker));
    std::ofstream output(page);
    output << before << kMarker << "\nMade with " << conditions
           << ".\n\n| fault | how it was made | what must hold | tried | seen |\n|---|---|---|---|---|\n";
    for (const Trials& trials : table)
        output << "| " << trials.fault.title << " | " << trials.fault.procedure << " | "
               << trials.fault.requirement << " | " << trials.results.size() << " | " << summary(trials)
               << " |\n";
    if (!output.flush())
        throw std::system_error(errno, std::generic_category(), page);
}

} // namespace soak
