#include "command.h"
#include "display.h"
#include "loop.h"
#include "table.h"

#include <chrono>
#include <map>

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kPeriod = 1s; // of the queries
constexpr std::chrono::milliseconds kRedraw = 250ms;

/// One line for each radar that appeared (+), changed (=) or left (-) since the last call.
class Events {
public:
    void print(const std::vector<Radar>& radars, const Output& output) {
        std::map<std::string, std::string> now;
        for (const Radar& radar : radars) {
            const std::string text = summary(radar);
            const auto before = m_known.find(radar.name);
            if (before == m_known.end())
                output.write("+ " + text + "\n");
            else if (before->second != text)
                output.write("= " + text + "\n");
            now[radar.name] = text;
        }
        for (const auto& [name, text] : m_known)
            if (now.count(name) == 0)
                output.write("- " + printable(name) + "\n");
        m_known = now;
    }

private:
    std::map<std::string, std::string> m_known; // what was printed last, by name
};

/// The table on a screen of its own, which is given back at the end.
class Screen {
public:
    explicit Screen(const Output& output) : m_output(output) { m_output.write("\x1b[?1049h\x1b[?25l"); }
    ~Screen() { m_output.write("\x1b[?25h\x1b[?1049l"); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    void draw(const std::vector<Radar>& radars, unsigned int localIp) const {
        const Output::Size size = m_output.terminalSize();
        std::vector<std::string> lines = table(radars);
        const std::string where = localIp == 0 ? "searching for the interface that leads to the radars"
                                               : "on " + std::string(net::transAddr(localIp));
        lines.insert(lines.begin(), std::to_string(radars.size()) +
                                        (radars.size() == 1 ? " radar, " : " radars, ") + where +
                                        "; Ctrl-C ends");
        const auto rows = static_cast<std::size_t>(size.rows);
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
    const Output& m_output;
};

int watch(Output& output) {
    Loop loop;
    Display display;
    Events events;
    const auto screen = output.isTerminal() ? std::make_unique<Screen>(output) : nullptr;
    auto nextQuery = std::chrono::steady_clock::now();
    for (;;) {
        if (std::chrono::steady_clock::now() >= nextQuery) {
            display.query();
            nextQuery = std::chrono::steady_clock::now() + kPeriod;
        }
        if (screen)
            screen->draw(display.radars(), display.localIp());
        else
            events.print(display.radars(), output);
        if (loop.wait(kRedraw) == Loop::Event::Stop)
            return kFound;
    }
}

} // namespace

void addWatch(CLI::App& app, Run& chosen) {
    CLI::App* command =
        app.add_subcommand("watch", "Follow the radars until stopped: a table that is kept up to date "
                                    "on a terminal, else a line for each that comes (+), changes (=) or "
                                    "goes (-)");
    command->callback([&chosen] { chosen = watch; });
}
