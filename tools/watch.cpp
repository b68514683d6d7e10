#include "history.h"
#include "json.h"
#include "screen.h"
#include "search.h"
#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>

namespace {

using namespace std::chrono_literals;
using SystemClock = std::chrono::system_clock;

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

/// + for an entry that appeared, = for one that changed, - for one that left.
std::string eventLine(const Change& change, const radar::LocalAddress& local) {
    const radar::Radar& entry = change.sighting.entry;
    if (change.kind == Change::Kind::Appeared)
        return "+ " + summary(entry);
    if (change.kind == Change::Kind::Left)
        return "- " + printable(entry.name) + ": " + change.whyLeft;
    std::string text = "= " + summary(entry);
    for (const std::string& what : change.what)
        if (what == "source")
            text += "; from " + std::string(net::transAddr(entry.source));
        else if (what == "sharesHostIdWith")
            text += change.sharesHostIdWith.empty()
                        ? "; shares its host id no more"
                        : "; shares its host id with " + inWords(change.sharesHostIdWith);
        else if (what == "localAddress")
            text += local.address == 0
                        ? "; no local address leads to it any more"
                        : "; the local address is " + std::string(net::transAddr(local.address));
    return text;
}

nlohmann::ordered_json toJson(const Change& change, const radar::LocalAddress& local) {
    constexpr const char* kKinds[] = {"appeared", "changed", "left"};
    constexpr const char* kReasons[] = {"variant", "silent",       "renumbered",
                                        "renamed", "localAddress", "displaced"};
    nlohmann::ordered_json document = jsonDocument();
    document["event"] = kKinds[static_cast<int>(change.kind)];
    document["time"] = timestamp(SystemClock::now());
    document["firstSeen"] = timestamp(change.sighting.first);
    document["lastSeen"] = timestamp(change.sighting.last);
    if (change.kind == Change::Kind::Changed)
        document["changes"] = change.what;
    if (change.kind == Change::Kind::Left) {
        document["reason"] = change.whyLeft;
        document["reasonCode"] = kReasons[static_cast<int>(change.reason)];
        if (!change.successor.empty())
            addName(document["successor"], change.successor);
    }
    addLocalAddress(document, local);
    document["sharesHostIdWith"] = nlohmann::ordered_json::array();
    for (const std::string& name : change.sharesHostIdWith)
        addName(document["sharesHostIdWith"].emplace_back(), name);
    document["radar"] = ::toJson(change.sighting.entry);
    return document;
}

std::string heading(std::size_t present, unsigned int localIp, bool hasKeys) {
    return std::to_string(present) + (present == 1 ? " radar, " : " radars, ") +
           (localIp == 0 ? "searching for the interface that leads to the radars"
                         : "on " + std::string(net::transAddr(localIp))) +
           (hasKeys ? "; q ends" : "; Ctrl-C ends");
}

/// The table of the radars, those that left included.
Screen::Picture picture(const radar::Watch& watch, History& history, bool endpoints, bool hasKeys,
                        const Output& output) {
    constexpr int kMark = 2; // columns before each line
    const int columns = output.terminalSize().columns;
    const radar::LocalAddress local = watch.localAddress();
    const TableLayout layout(local.interface, std::max(1, columns - kMark), true);
    const SharedIds& shared = history.sharedIds();
    Screen::Picture picture;
    picture.heading = {heading(history.present().size(), local.address, hasKeys),
                       output.styled(Output::Style::Heading, "  " + layout.heading())};
    picture.notes = sharedIdNotes(shared, columns);
    const auto now = std::chrono::steady_clock::now();
    std::map<std::string, std::vector<std::string>> lines; // by name
    for (const radar::Radar& entry : entriesOf(watch.radars())) {
        const auto known = history.present().find(entry.name);
        if (known == history.present().end())
            continue;
        const bool sharesId = shared.contains(entry.hostId);
        const bool isNew = now - known->second.appeared < kNew;
        const std::string line = (isNew ? "+ " : "  ") + layout.line(entry, sharesId, ageText(entry.age),
                                                                     timeText(known->second.first, "%T"));
        lines[entry.name] = {sharesId ? output.styled(Output::Style::Bad, line)
                             : isNew  ? output.styled(Output::Style::Good, line)
                                      : line};
        if (endpoints)
            std::ranges::move(endpointLines(entry, columns), std::back_inserter(lines[entry.name]));
    }
    for (const auto& [sighting, why, since] : history.gone()) {
        const std::string line =
            layout.line(sighting.entry, false, timeText(sighting.last, "%T"), timeText(sighting.first, "%T"));
        lines[sighting.entry.name] = {output.styled(Output::Style::Bad, "- " + line),
                                      output.styled(Output::Style::Dim, "    left: " + why)};
    }
    for (auto& [name, some] : lines)
        std::ranges::move(some, std::back_inserter(picture.body));
    return picture;
}

/// Follows the radars and shows them until it is told to end.
class View {
public:
    View(const Options& options, Output& output)
        : m_options(options), m_output(output), m_search({options.local}) {
        if (!output.canMoveCursor() || options.json ||
            options.count > 0) // a picture would go with its screen
            return;
        m_screen = std::make_unique<Screen>(output);
        m_search.loop().takeTerminal(m_screen->keyboard());
        m_screen->resume();
    }

    int run() {
        for (;;) {
            if (!report())
                return kFound;
            if (m_screen && Clock::now() >= m_nextDraw)
                draw();
            switch (m_search.loop().wait(patience())) {
            case Loop::Event::Stop:
                return kFound;
            case Loop::Event::Input:
                if (!m_screen->readKeys())
                    return kFound;
                break;
            case Loop::Event::Suspend:
                m_screen->suspend();
                goOn();
                break;
            case Loop::Event::Resume:
                m_screen->resume();
                goOn();
                break;
            case Loop::Event::Wake:
                continue; // the screen waits for its turn
            default:
                break;
            }
            m_nextDraw = Clock::now();
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    /// Until there is something to do that nobody wakes us for.
    std::chrono::milliseconds patience() const {
        const auto until = m_screen                     ? m_nextDraw
                           : m_silentSince && !m_hinted ? *m_silentSince + kSilence
                                                        : Clock::time_point::max();
        if (until == Clock::time_point::max())
            return -1ms;
        return std::max(0ms, std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()));
    }

    /// Whoever was suspended has heard nothing.
    void goOn() {
        if (m_silentSince)
            m_silentSince = Clock::now();
    }

    /// @return false after as many events as are wanted
    bool report() {
        for (const Change& change : m_history.next()) {
            const radar::LocalAddress local = m_search.watch().localAddress();
            if (m_options.json)
                m_output.write(jsonText(toJson(change, local), true));
            else if (!m_screen)
                m_output.write(eventLine(change, local) + "\n");
            if (++m_count == m_options.count)
                return false;
        }
        if (!m_history.present().empty()) {
            m_silentSince.reset();
            m_hinted = false;
        } else if (!m_silentSince) {
            m_silentSince = Clock::now();
        }
        if (!m_screen && !m_hinted && isSilent()) {
            tell(std::string("radarctl: ") + kHint + "\n");
            m_hinted = true;
        }
        return true;
    }

    bool isSilent() const { return m_silentSince && Clock::now() - *m_silentSince >= kSilence; }

    void draw() {
        Screen::Picture shown =
            picture(m_search.watch(), m_history, m_options.endpoints, m_screen->keyboard() >= 0, m_output);
        if (isSilent())
            shown.notes.emplace_back(kHint);
        m_screen->draw(shown);
        m_nextDraw = Clock::now() + kRedraw;
    }

    const Options& m_options;
    Output& m_output;
    Search m_search;
    History m_history{m_search.watch()};
    std::unique_ptr<Screen> m_screen; // none: events are printed
    Clock::time_point m_nextDraw = Clock::now();
    int m_count = 0;                                               // of events
    std::optional<Clock::time_point> m_silentSince = Clock::now(); // without a radar
    bool m_hinted = false;
};

int watch(const Options& options, Output& output) {
    return View(options, output).run();
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
    syntax.option("--count", options->count, "N", "End after so many events, each a line, on a terminal too",
                  checkWholeNumber(1, std::numeric_limits<int>::max(), "is no number of events"));
}
