#include "search.h"
#include "table.h"

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/udpsocket.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <set>
#include <system_error>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    SearchOptions search;
    std::string file;
    double every = 0; // seconds; 0: once
};

/// Metrics in the text format of Prometheus.
class Metrics {
public:
    using Labels = std::initializer_list<std::pair<const char*, std::string>>;

    /// The values that follow belong to it. @param help without backslash and line end
    void begin(const std::string& name, const std::string& help) {
        m_name = name;
        m_text += "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
    }
    void add(const Labels& labels, const std::string& value) {
        m_text += m_name;
        const char* separator = "{";
        for (const auto& [label, labelValue] : labels) {
            m_text += std::string(separator) + label + "=\"" + escaped(labelValue) + "\"";
            separator = ",";
        }
        m_text += (labels.size() == 0 ? " " : "} ") + value + "\n";
    }
    const std::string& text() const { return m_text; }

private:
    static std::string escaped(const std::string& text) {
        std::string result;
        for (const char character : text)
            result += character == '\n'                       ? "\\n"
                      : character == '\\' || character == '"' ? std::string("\\") + character
                                                              : std::string(1, character);
        return result;
    }

    std::string m_name;
    std::string m_text;
};

/// A name as a label's value, which must be UTF-8: as printable() shows it, and no two names are the same.
std::string labelOf(const std::string& name) {
    std::string text;
    for (const char byte : name)
        text += byte == '\\' ? "\\x5C" : std::string(1, byte);
    return printable(text);
}

/// What is exported, with a memory for radars that left.
class Exporter {
public:
    explicit Exporter(const radar::Watch& watch) : m_watch(watch) {}

    std::string text() {
        const std::vector<radar::Radar> radars = m_watch.radars();
        Metrics metrics;
        addPresence(metrics, radars);
        metrics.begin("radar_info",
                      "Host id (0: none of the plan), source address and number of streams of a radar.");
        for (const radar::Radar& radar : radars)
            metrics.add({{"radar", labelOf(radar.name)},
                         {"host_id", std::to_string(radar.hostId)},
                         {"source", net::transAddr(radar.source)},
                         {"streams", std::to_string(radar.streams.size())}},
                        "1");
        metrics.begin("radar_announcement_age_seconds",
                      "Time since the last announcement of a radar when this was written.");
        for (const radar::Radar& radar : radars)
            metrics.add({{"radar", labelOf(radar.name)}}, seconds(radar.age));
        metrics.begin("radar_host_id_holders", "Radars that have one host id, which is a conflict.");
        for (const auto& [id, names] : sharedIds(radars))
            metrics.add({{"host_id", std::to_string(id)}}, std::to_string(names.size()));
        addLocalAddress(metrics);
        return metrics.text();
    }

private:
    static constexpr std::size_t kMaxNames = 1000; // anybody can announce names

    static std::string seconds(std::chrono::milliseconds time) {
        char text[32];
        std::snprintf(text, sizeof text, "%.3f", static_cast<double>(time.count()) / 1000);
        return text;
    }

    void addPresence(Metrics& metrics, const std::vector<radar::Radar>& radars) {
        metrics.begin("radars", "Number of radars that announce themselves.");
        metrics.add({}, std::to_string(radars.size()));
        metrics.begin("radar_up", "Whether a radar announces itself (1), or has left (0).");
        std::set<std::string> left = std::exchange(m_known, {});
        for (const radar::Radar& radar : radars) {
            metrics.add({{"radar", labelOf(radar.name)}}, "1");
            left.erase(radar.name);
            m_known.insert(radar.name);
        }
        for (const std::string& name : left)
            if (m_known.size() < kMaxNames) {
                metrics.add({{"radar", labelOf(name)}}, "0");
                m_known.insert(name);
            }
    }

    void addLocalAddress(Metrics& metrics) const {
        const radar::LocalAddress local = m_watch.localAddress();
        metrics.begin("radar_local_address", "Whether a local address leads to the radars.");
        const bool any = local.address != 0;
        metrics.add(
            {{"address", any ? net::transAddr(local.address) : ""}, {"interface", labelOf(local.interface)}},
            any ? "1" : "0");
    }

    const radar::Watch& m_watch;
    std::set<std::string> m_known; // radars that were written last
};

/// Replaces a file as a whole: who reads it meets the old text or the new one. It is not flushed to the disk:
/// after a power failure nobody wants what it said.
void replaceFile(const std::string& path, const std::string& text) {
    requireReplaceable(path);
    std::string temporary = path + ".XXXXXX";
    const net::detail::Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    const auto fail = [&] {
        const int error = errno;
        if (file.isOpen())
            ::unlink(temporary.c_str());
        throw std::system_error(error, std::generic_category(), "cannot write " + printable(path));
    };
    if (!file.isOpen())
        fail();
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(file.get(), text.data() + done, text.size() - done);
        if (count == -1)
            fail();
        done += static_cast<std::size_t>(count);
    }
    constexpr mode_t kMode = 0644; // the node exporter runs as somebody else
    if (::fchmod(file.get(), kMode) == -1 || ::rename(temporary.c_str(), path.c_str()) == -1)
        fail();
}

int exportRadars(const Options& options) {
    Search search(options.search);
    Exporter exporter(search.watch());
    const auto isAny = [](const std::vector<radar::Radar>& entries) { return !entries.empty(); };
    if (search.until(isAny) == Search::End::Stopped)
        throw Failure(kNothingFound, "stopped before anything was written");
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.every));
    for (auto due = Clock::now();; due += period) {
        if (search.pauseUntil(due) == Search::End::Stopped)
            return kFound;
        replaceFile(options.file, exporter.text());
        if (options.every == 0)
            return kFound;
    }
}

} // namespace

void addExport(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax =
        line.command("export", "Write what is known of the radars to a file for the node exporter",
                     [options](Output&) { return exportRadars(*options); });
    syntax.required(
        "--textfile", options->file, "FILE",
        "The file to replace, in the directory of the textfile collector; its name ends with .prom");
    syntax.option("--every", options->every, "S", "Write again every so many seconds, until stopped",
                  checkSeconds(0.1, "period"));
    addSearchOptions(syntax, options->search);
}
