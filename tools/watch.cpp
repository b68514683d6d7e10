#include "history.h"
#include "json.h"
#include "search.h"
#include "table.h"

#include <chrono>
#include <ctime>
#include <limits>

namespace {

using namespace std::chrono_literals;
using SystemClock = std::chrono::system_clock;

constexpr std::chrono::milliseconds kPeriod = 1s; // of the queries
constexpr std::chrono::milliseconds kRedraw = 250ms;
constexpr auto kNew = 10s; // for so long a radar that appeared is marked

struct Options {
    LocalOptions local;
    bool json = false;
    int count = 0; // 0: without end
};

/// @param pattern of strftime, in local time
std::string timeText(SystemClock::time_point time, const char* pattern) {
    const std::time_t seconds = SystemClock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    std::strftime(text, sizeof text, pattern, &local);
    return text;
}

/// + for a radar that appeared, = for one that changed, - for one that left.
std::string eventLine(const Event& event) {
    switch (event.kind) {
    case Event::Kind::Appeared:
        return "+ " + summary(event.sighting.radar);
    case Event::Kind::Changed:
        return "= " + summary(event.sighting.radar);
    default:
        return "- " + printable(event.sighting.radar.name) + ": " + event.sighting.whyLeft;
    }
}

nlohmann::ordered_json toJson(const Event& event) {
    constexpr const char* kKinds[] = {"appeared", "changed", "left"};
    nlohmann::ordered_json document = jsonDocument();
    document["event"] = kKinds[static_cast<int>(event.kind)];
    document["time"] = timeText(SystemClock::now(), "%FT%T%z");
    document["firstSeen"] = timeText(event.sighting.first, "%FT%T%z");
    document["lastSeen"] = timeText(event.sighting.last, "%FT%T%z");
    if (event.kind == Event::Kind::Left)
        document["reason"] = event.sighting.whyLeft;
    document["radar"] = ::toJson(event.sighting.radar);
    return document;
}

/// The table on a screen of its own, which is given back at the end.
class Screen {
public:
    explicit Screen(const Output& output) : m_output(output) { m_output.write("\x1b[?1049h\x1b[?25l"); }
    ~Screen() { m_output.write("\x1b[?25h\x1b[?1049l"); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void draw(const History& history, unsigned int localIp) const {
        std::vector<std::string> lines{
            heading(history, localIp),
            m_output.styled(Output::Style::Heading, "  " + kTableHeading + "FIRST SEEN  LAST HEARD")};
        const std::string interface = localIp != 0 ? net::localIfaName(localIp) : "";
        for (const auto& [name, sighting] : history.sightings())
            append(lines, sighting, interface);
        const auto rows = static_cast<std::size_t>(m_output.terminalSize().rows);
        if (lines.size() > rows) {
            lines.resize(rows - 1);
            lines.push_back("... more than this terminal has lines for");
        }
        std::string picture = "\x1b[H\x1b[?7l"; // what is wider than the terminal is cut, not wrapped
        for (std::size_t i = 0; i < lines.size(); ++i)
            picture += (i == 0 ? "" : "\r\n") + lines[i] + "\x1b[K";
        m_output.write(picture + "\x1b[J\x1b[?7h");
    }

private:
    static std::string heading(const History& history, unsigned int localIp) {
        const auto present = std::ranges::count_if(
            history.sightings(), [](const auto& entry) { return entry.second.whyLeft.empty(); });
        return std::to_string(present) + (present == 1 ? " radar, " : " radars, ") +
               (localIp == 0 ? "searching for the interface that leads to the radars"
                             : "on " + std::string(net::transAddr(localIp))) +
               "; Ctrl-C ends";
    }

    void append(std::vector<std::string>& lines, const Sighting& sighting,
                const std::string& interface) const {
        const auto now = SystemClock::now();
        const std::string line =
            tableLine(sighting.radar, interface) + timeText(sighting.first, "%T") + "    ";
        if (!sighting.whyLeft.empty()) {
            lines.push_back(m_output.styled(Output::Style::Bad, "- " + line + timeText(sighting.last, "%T")));
            lines.push_back(m_output.styled(Output::Style::Dim, "    left: " + sighting.whyLeft));
            return;
        }
        const bool isNew = now - sighting.first < kNew;
        lines.push_back(isNew
                            ? m_output.styled(Output::Style::Good, "+ " + line + ageText(sighting.radar.age))
                            : "  " + line + ageText(sighting.radar.age));
        for (const std::string& endpoints : endpointLines(sighting.radar))
            lines.push_back(endpoints);
    }

    const Output& m_output;
};

int watch(const Options& options, Output& output) {
    Search search({options.local});
    Display& display = search.display();
    History history;
    const auto screen = output.isTerminal() && !options.json ? std::make_unique<Screen>(output) : nullptr;
    int count = 0;
    auto nextQuery = std::chrono::steady_clock::now();
    for (;;) {
        if (std::chrono::steady_clock::now() >= nextQuery) {
            display.query();
            nextQuery = std::chrono::steady_clock::now() + kPeriod;
        }
        for (const Event& event : history.update(display.radars(), display.localIp())) {
            if (options.json)
                output.write(jsonText(toJson(event), true));
            else if (!screen)
                output.write(eventLine(event) + "\n");
            if (++count == options.count)
                return kFound;
        }
        if (screen)
            screen->draw(history, display.localIp());
        if (search.loop().wait(kRedraw) == Loop::Event::Stop)
            return kFound;
    }
}

} // namespace

void addWatch(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("watch",
                                 "Follow the radars until stopped: a table that is kept up to date "
                                 "on a terminal, else a line for each that comes (+), changes (=) or "
                                 "goes (-)",
                                 [options](Output& output) { return watch(*options, output); });
    addLocalOptions(syntax, options->local);
    syntax.flag("--json", options->json, "Print each event as a line of JSON");
    syntax.option("--count", options->count, "N", "End after so many events",
                  checkWholeNumber(1, std::numeric_limits<int>::max(), "is no number of events"));
}
