#include "history.h"
#include "json.h"
#include "screen.h"
#include "search.h"
#include "table.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <limits>
#include <memory>

namespace {

using namespace std::chrono_literals;
using SystemClock = std::chrono::system_clock;

constexpr std::chrono::milliseconds kPeriod = 1s; // of the queries
constexpr std::chrono::milliseconds kRedraw = 250ms;
constexpr auto kNew = 10s;     // for so long a radar that appeared is marked
constexpr auto kSilence = 10s; // without a radar
constexpr const char* kHint = "no radar for 10 s; see radarctl doctor";

struct Options {
    LocalOptions local;
    bool endpoints = false;
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

/// As RFC 3339 has it, in local time.
std::string timestamp(SystemClock::time_point time) {
    std::string text = timeText(time, "%FT%T%z");
    return text.insert(text.size() - 2, ":"); // +0200
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
    document["time"] = timestamp(SystemClock::now());
    document["firstSeen"] = timestamp(event.sighting.first);
    document["lastSeen"] = timestamp(event.sighting.last);
    if (event.kind == Event::Kind::Left)
        document["reason"] = event.sighting.whyLeft;
    document["radar"] = ::toJson(event.sighting.radar);
    return document;
}

std::string heading(std::ptrdiff_t present, unsigned int localIp, bool hasKeys) {
    return std::to_string(present) + (present == 1 ? " radar, " : " radars, ") +
           (localIp == 0 ? "searching for the interface that leads to the radars"
                         : "on " + std::string(net::transAddr(localIp))) +
           (hasKeys ? "; q ends" : "; Ctrl-C ends");
}

/// The table of the radars, those that left included.
Screen::Picture picture(const History& history, unsigned int localIp, bool endpoints, bool hasKeys,
                        const Output& output) {
    constexpr int kMark = 2; // columns before each line
    const int columns = output.terminalSize().columns;
    const TableLayout layout(localIp != 0 ? net::localIfaName(localIp) : "", std::max(1, columns - kMark),
                             true);
    std::vector<Radar> present;
    for (const auto& [name, sighting] : history.sightings())
        if (sighting.whyLeft.empty())
            present.push_back(sighting.radar);
    const auto shared = sharedIds(present);
    Screen::Picture picture;
    picture.heading = {heading(std::ssize(present), localIp, hasKeys),
                       output.styled(Output::Style::Heading, "  " + layout.heading())};
    picture.notes = sharedIdNotes(shared, columns);
    const auto now = SystemClock::now();
    for (const auto& [name, sighting] : history.sightings()) {
        const std::string firstSeen = timeText(sighting.first, "%T");
        if (!sighting.whyLeft.empty()) {
            const std::string line =
                layout.line(sighting.radar, false, timeText(sighting.last, "%T"), firstSeen);
            picture.body.push_back(output.styled(Output::Style::Bad, "- " + line));
            picture.body.push_back(output.styled(Output::Style::Dim, "    left: " + sighting.whyLeft));
            continue;
        }
        const bool sharesId = shared.contains(sighting.radar.hostId);
        const bool isNew = now - sighting.first < kNew;
        const std::string line = (isNew ? "+ " : "  ") + layout.line(sighting.radar, sharesId,
                                                                     ageText(sighting.radar.age), firstSeen);
        picture.body.push_back(sharesId ? output.styled(Output::Style::Bad, line)
                               : isNew  ? output.styled(Output::Style::Good, line)
                                        : line);
        if (endpoints)
            std::ranges::move(endpointLines(sighting.radar, columns), std::back_inserter(picture.body));
    }
    return picture;
}

/// Follows the radars and shows them until it is told to end.
class Watch {
public:
    Watch(const Options& options, Output& output)
        : m_options(options), m_output(output), m_search({options.local}) {
        if (!output.isTerminal() || options.json)
            return;
        m_screen = std::make_unique<Screen>(output);
        m_search.loop().takeTerminal(m_screen->keyboard());
    }

    int run() {
        for (;;) {
            query();
            if (Clock::now() >= m_answered && !report())
                return kFound;
            if (m_screen)
                draw();
            switch (m_search.loop().wait(kRedraw)) {
            case Loop::Event::Stop:
                return kFound;
            case Loop::Event::Input:
                if (!m_screen->readKeys())
                    return kFound;
                break;
            case Loop::Event::Suspend:
                m_screen->suspend();
                awaitAnswers();
                break;
            case Loop::Event::Resume:
                m_screen->resume();
                awaitAnswers();
                break;
            default:
                break;
            }
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    void query() {
        if (Clock::now() < m_nextQuery)
            return;
        m_search.display().query();
        m_nextQuery = Clock::now() + kPeriod;
    }

    /// Whoever was suspended has heard nothing: that does not mean that the radars have left.
    void awaitAnswers() {
        m_nextQuery = Clock::now();
        m_answered = Clock::now() + kPeriod;
        m_lastRadar = m_answered;
    }

    /// @return false after as many events as are wanted
    bool report() {
        const Display& display = m_search.display();
        const std::vector<Radar> radars = display.radars();
        for (const Event& event : m_history.update(radars, display.localIp())) {
            if (m_options.json)
                m_output.write(jsonText(toJson(event), true));
            else if (!m_screen)
                m_output.write(eventLine(event) + "\n");
            if (++m_count == m_options.count)
                return false;
        }
        if (!radars.empty()) {
            m_lastRadar = Clock::now();
            m_hinted = false;
        } else if (!m_screen && !m_hinted && isSilent()) {
            std::fprintf(stderr, "radarctl: %s\n", kHint);
            m_hinted = true;
        }
        return true;
    }

    bool isSilent() const { return Clock::now() - m_lastRadar >= kSilence; }

    void draw() {
        Screen::Picture shown = picture(m_history, m_search.display().localIp(), m_options.endpoints,
                                        m_screen->keyboard() >= 0, m_output);
        if (isSilent())
            shown.notes.emplace_back(kHint);
        m_screen->draw(shown);
    }

    const Options& m_options;
    Output& m_output;
    Search m_search;
    History m_history;
    std::unique_ptr<Screen> m_screen; // none: events are printed
    int m_count = 0;                  // of events
    Clock::time_point m_nextQuery = Clock::now();
    Clock::time_point m_answered = Clock::now(); // when what is known can be relied on
    Clock::time_point m_lastRadar = Clock::now();
    bool m_hinted = false;
};

int watch(const Options& options, Output& output) {
    return Watch(options, output).run();
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
    syntax.flag("--endpoints", options->endpoints, "Show the endpoints of image and ARPA in the table, too");
    syntax.flag("--json", options->json, "Print each event as a line of JSON");
    syntax.option("--count", options->count, "N", "End after so many events",
                  checkWholeNumber(1, std::numeric_limits<int>::max(), "is no number of events"));
}
