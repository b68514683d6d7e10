#include "command.h"
#include "display.h"
#include "loop.h"
#include "table.h"

#include <chrono>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kAnswerTime = 1s; // from the first query to the table: every host answers in milliseconds
constexpr auto kPoll = 50ms;

int list(double timeout, Output& output) {
    Loop loop;
    Display display;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout));
    bool stopped = false;
    const auto pause = [&](std::chrono::milliseconds duration) {
        stopped = stopped || loop.wait(duration) == Loop::Event::Stop;
    };
    while (!stopped && display.localIp() == 0 && Clock::now() < deadline)
        pause(kPoll);
    while (!stopped && display.localIp() != 0 && display.radars().empty() && Clock::now() < deadline) {
        display.query();
        for (const auto answered = Clock::now() + kAnswerTime; !stopped && Clock::now() < answered;)
            pause(kPoll);
    }
    const std::vector<Radar> radars = display.radars();
    if (radars.empty()) {
        std::fprintf(stderr,
                     stopped ? "radarctl: stopped before a radar was found\n"
                             : "radarctl: no radar found within %g s\n",
                     timeout);
        return kNothingFound;
    }
    for (const std::string& line : table(radars))
        output.write(line + "\n");
    return kFound;
}

std::string checkTimeout(const std::string& text) {
    double seconds = 0;
    const bool isNumber = CLI::detail::lexical_cast(text, seconds);
    return isNumber && seconds > 0 && seconds <= 3600 ? ""
                                                      : "'" + text + "' is no time-out: seconds, up to 3600";
}

} // namespace

void addList(CLI::App& app, Run& chosen) {
    const auto timeout =
        std::make_shared<double>(15); // a search without a configured address takes 6 to 12 seconds
    CLI::App* command = app.add_subcommand("list", "Find the radars once and print a table of them");
    command->add_option("--timeout", *timeout, "Seconds after which to give up (default 15)")
        ->check(checkTimeout);
    command->callback(
        [timeout, &chosen] { chosen = [timeout](Output& output) { return list(*timeout, output); }; });
}
