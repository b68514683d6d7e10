#include "command.h"
#include "endpoints.h"
#include "loop.h"
#include "recorded.h"
#include "search.h"
#include "status_line.h"
#include "table.h"

#include <RadarWatch/radarwatch.h>
#include <RadarWatch/recording/recorder.h>

#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;
using radar::Event;
using Clock = std::chrono::steady_clock;

struct Options {
    std::vector<std::string> names; // empty: all
    std::string streams = "all";
    LocalOptions local;
    double duration = 0;        // seconds; 0: until stopped
    std::uint64_t size = 0;     // bytes; 0: any
    std::uint64_t rotateAt = 0; // bytes of a file; 0: one file
    int keep = 0;               // files; 0: all
    std::string sizeText;
    std::string rotateText;
    std::string file;
};

constexpr auto kPeriod = 250ms;       // of the progress, and of a look at what is to be heard
constexpr auto kPatience = 15s;       // with radars that are named; a search takes 6 to 12
constexpr std::size_t kMaxLines = 10; // about groups that cannot be heard

/// The words of a list with commas.
std::vector<std::string> words(const std::string& list) {
    std::vector<std::string> result(1);
    for (const char character : list)
        if (character == ',')
            result.emplace_back();
        else
            result.back() += character;
    return result;
}

/// "500M" as bytes; 0: it is no size.
std::uint64_t bytesOf(const std::string& text) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const std::string_view unit(end);
    const double factor = unit == "K" ? 1e3 : unit == "M" ? 1e6 : unit == "G" ? 1e9 : unit.empty() ? 1 : 0;
    const double bytes = number * factor;
    return bytes >= 1 && bytes < 1e18 ? static_cast<std::uint64_t>(bytes) : 0;
}

std::string checkSize(const std::string& text) {
    return bytesOf(text) > 0 ? "" : "'" + text + "' is no size: bytes, or as 500M, 1G";
}

std::string checkStreams(const std::string& text) {
    std::string names = "all";
    for (const EndpointName& known : kEndpointNames)
        names += std::string(", ") + known.name;
    for (const std::string& word : words(text))
        if (word != "all" &&
            std::ranges::none_of(kEndpointNames, [&](const auto& known) { return word == known.name; }))
            return "'" + word + "' is no stream: " + names;
    return "";
}

/// Refuses the standard output, which has the report, and a descriptor of its own by then.
std::string checkFile(const std::string& path) {
    struct stat file {};
    struct stat output {};
    const bool isOutput = ::stat(path.c_str(), &file) == 0 && ::fstat(STDOUT_FILENO, &output) == 0 &&
                          file.st_dev == output.st_dev && file.st_ino == output.st_ino;
    return isOutput && path != "/dev/null"
               ? "'" + path + "' is where the report goes; a FIFO takes a recording to another program"
               : "";
}

std::string sizeText(double bytes) {
    const char* units[] = {"B", "kB", "MB", "GB"};
    std::size_t unit = 0;
    for (; bytes >= 1000 && unit + 1 < std::size(units); ++unit)
        bytes /= 1000;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

/// What a comment in the recording says of an event; empty: nothing.
std::string commentOf(const Event& event) {
    constexpr const char* kReasons[] = {"",
                                        "silent for eight seconds",
                                        "it takes another host id",
                                        "it has another name now",
                                        "the local address changed",
                                        "too many others"};
    const std::string name = printable(event.radar.name);
    const std::string id = event.radar.hostId == 0 ? "" : ", host id " + std::to_string(event.radar.hostId);
    switch (event.kind) {
    case Event::Kind::Appeared:
        return name + " came" + id + ", from " + net::transAddr(event.radar.source);
    case Event::Kind::Changed:
        return name + " moved" + id + ", from " + net::transAddr(event.radar.source);
    case Event::Kind::Left:
        return name + " left: " + kReasons[static_cast<std::size_t>(event.reason)];
    case Event::Kind::Conflict:
        return "host id " + std::to_string(event.hostId) + " is held by " +
               std::to_string(event.holders.size());
    case Event::Kind::LocalFound:
    case Event::Kind::LocalChanged:
        return std::string("local address ") + net::transAddr(event.local.address);
    case Event::Kind::LocalLost:
        return "the local address is gone";
    default:
        return "";
    }
}

/// Keeps a connection to a radar's TCP service, and records what comes.
class Tap final : public net::iTcpDataListener {
public:
    Tap(Recorder& recorder, const NetAddress& server, unsigned int localIp)
        : m_recorder(recorder), m_server(server), m_client(this, server, localIp) {}

    void OnTcpDataReceived(int, const char*, unsigned short, const char* data, int length) override {
        m_recorder.takeTcp(m_server, {data, static_cast<std::size_t>(length)});
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

private:
    Recorder& m_recorder;
    const NetAddress m_server;
    net::TcpClient m_client; // last: it calls
};

/// A group has a socket, and a full plan has hundreds.
void allowDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit); // refused: what cannot be heard is said
}

/// Of a FIFO, which cannot be opened to write while nobody reads it; other files are left closed.
/// @throws Failure when stopped meanwhile
net::detail::Descriptor awaitReader(const Options& options, Loop& loop) {
    struct stat file {};
    while (options.rotateAt == 0 && ::stat(options.file.c_str(), &file) == 0 && S_ISFIFO(file.st_mode)) {
        net::detail::Descriptor fifo(::open(options.file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (fifo.isOpen() || errno != ENXIO)
            return fifo;
        if (loop.wait(100ms) == Loop::Event::Stop)
            throw Failure(kNothingFound, "stopped before anybody read " + printable(options.file));
    }
    return {};
}

class Record {
public:
    Record(const Options& options, Output& output)
        : m_options(options), m_output(output),
          m_watch(radar::Watch::Options{checkedLocalAddress(options.local)}),
          m_reader(awaitReader(options, m_loop)),
          m_recorder({options.file, std::string("radarctl ") + UDPSOCKET_VERSION, options.rotateAt,
                      static_cast<std::size_t>(options.keep), kQueue},
                     [this] { m_loop.wake(); }) {
        m_reader.reset();
        m_loop.watch(m_watch.descriptor());
    }

    int run() {
        const auto end = m_options.duration > 0
                             ? m_start + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(m_options.duration))
                             : Clock::time_point::max();
        auto nextLook = Clock::now();
        while (Clock::now() < end && !m_recorder.writer().failure() &&
               (m_options.size == 0 || m_recorder.writer().bytes() < m_options.size)) {
            if (Clock::now() >= nextLook) {
                listen();
                if (!m_toldUnheard && Clock::now() - m_start >= kPatience)
                    tellUnheard();
                show();
                nextLook = Clock::now() + kPeriod;
            }
            const Loop::Event event =
                m_loop.wait(std::max(Clock::duration(0), std::min(end, nextLook) - Clock::now()));
            if (event == Loop::Event::Stop)
                break;
            if (event == Loop::Event::Wake && takeEvents())
                listen();
        }
        m_taps.clear();
        m_recorder.finish();
        return report();
    }

private:
    static bool isNamed(const radar::Radar& radar, const std::string& name) {
        return name == radar.name || name == printable(radar.name);
    }
    bool isWanted(const radar::Radar& radar) const {
        return m_options.names.empty() || std::ranges::any_of(m_options.names, [&](const std::string& name) {
                   return isNamed(radar, name);
               });
    }
    bool isWanted(const EndpointName& endpoint) const {
        const std::vector<std::string> streams = words(m_options.streams);
        return std::ranges::any_of(
            streams, [&](const std::string& one) { return one == "all" || one == endpoint.name; });
    }

    /// @return whether there were any
    bool takeEvents() {
        bool any = false;
        while (const auto event = m_watch.next(0ms)) {
            any = true;
            const bool isOther = !event->radar.name.empty() && !isWanted(event->radar);
            if (const std::string text = commentOf(*event); !text.empty() && !isOther)
                m_recorder.comment(timeText(m_recorder.now()) + " " + text);
        }
        return any;
    }

    /// Hears the protocols' groups, and those of the radars as they are now.
    void listen() {
        const radar::LocalAddress local = m_watch.localAddress();
        std::set<Place> places;
        std::map<Contents::Key, NetAddress> servers;
        if (local.address != 0) {
            const std::string device = local.interface.substr(0, local.interface.find(':'));
            for (const wire::Group& group : {wire::kDiscovery, wire::kNegotiation, wire::kBeacon})
                places.insert({device, net::transAddr(group.address), net::HtoNs(group.port)});
            m_radars = 0;
            for (const radar::Radar& radar : m_watch.radars()) {
                if (!isWanted(radar))
                    continue;
                ++m_radars;
                std::erase_if(m_unheard, [&](const std::string& name) { return isNamed(radar, name); });
                m_heardAny = true;
                for (const RadarAddress& record : radar.streams)
                    add(places, servers, record, device);
                if (radar.tcp)
                    add(places, servers, *radar.tcp, device);
            }
        }
        for (const Recorder::Refusal& refusal : m_recorder.listenTo(places))
            if (m_refused.size() < kMaxLines && m_refused.insert(refusal.place).second) {
                m_status.wipe();
                tell("radarctl: cannot hear " +
                     endpointText(NetAddress{refusal.place.ip, refusal.place.port}) + ": " +
                     std::strerror(refusal.error) + "\n");
            }
        std::erase_if(m_taps, [&](const auto& tap) { return !servers.contains(tap.first); });
        for (const auto& [key, server] : servers)
            if (!m_taps.contains(key))
                m_taps[key] = std::make_unique<Tap>(m_recorder, server, local.address);
    }

    void add(std::set<Place>& places, std::map<Contents::Key, NetAddress>& servers,
             const RadarAddress& record, const std::string& device) const {
        constexpr unsigned char kUdp = 0;
        constexpr unsigned char kClient = 2; // of a TCP connection, as the display sees it
        for (const EndpointName& name : kEndpointNames) {
            const RadarEndpoint& endpoint = record.*name.endpoint;
            if (!isWanted(name) || !isAnnounced(endpoint))
                continue;
            if (endpoint.type == kUdp && IN_MULTICAST(net::NtoHl(endpoint.ip)))
                places.insert({device, endpoint.ip, endpoint.port});
            else if (endpoint.type == kClient)
                servers[Contents::keyOf(endpoint)] = endpoint;
        }
    }

    /// Which of the radars that are named were not there so far.
    void tellUnheard() {
        m_toldUnheard = true;
        if (m_unheard.empty())
            return;
        std::set<std::string> there;
        for (const radar::Radar& radar : m_watch.radars())
            there.insert(radar.name);
        m_status.wipe();
        tell("radarctl: not heard: " + inWords(m_unheard) + "; " +
             (there.empty() ? "no radar is there (see radarctl doctor)" : "there are: " + inWords(there)) +
             "\n");
    }

    void show() {
        if (!m_status.isShown() || Clock::now() < m_nextDrawing)
            return;
        const Recorder::Counts counts = m_recorder.counts();
        const double seconds = std::chrono::duration<double>(Clock::now() - m_nextDrawing + 1s).count();
        char text[160];
        std::snprintf(text, sizeof text,
                      "%.0f s, %zu %s, %.0f datagrams/s, %s/s, %s, %llu dropped; Ctrl-C ends",
                      std::chrono::duration<double>(Clock::now() - m_start).count(), m_radars,
                      m_radars == 1 ? "radar" : "radars",
                      static_cast<double>(counts.datagrams - m_before.datagrams) / seconds,
                      sizeText(static_cast<double>(counts.bytes - m_before.bytes) / seconds).c_str(),
                      sizeText(static_cast<double>(m_recorder.writer().bytes())).c_str(),
                      static_cast<unsigned long long>(counts.dropped));
        m_status.show(text);
        m_before = counts;
        m_nextDrawing = Clock::now() + 1s;
    }

    int report() {
        const Recorder::Counts counts = m_recorder.counts();
        std::string text = "recorded " + counted(counts.datagrams, "datagram") + ", " +
                           sizeText(static_cast<double>(counts.bytes)) + ", in " +
                           std::to_string((Clock::now() - m_start) / 1s) + " s; dropped: ";
        text += counts.dropped == 0 ? "none"
                                    : std::to_string(counts.dropped) + ", " +
                                          std::to_string(counts.droppedBySystem) + " of them by the system";
        m_status.wipe();
        m_output.write(text + "\n");
        if (const std::error_code error = m_recorder.writer().failure())
            throw Failure(kNotAllowed, printable(m_recorder.writer().path()) + ": " + error.message() +
                                           "; the recording ends with the last block that was written whole");
        if (counts.datagrams == 0)
            tell("radarctl: nothing was heard; radarctl doctor looks for the reason\n");
        tellUnheard();
        return counts.datagrams > 0 && (m_heardAny || m_options.names.empty()) ? kFound : kNothingFound;
    }

    static constexpr std::size_t kQueue = 64 << 20; // bytes

    const Options& m_options;
    Output& m_output;
    Loop m_loop; // before anything that starts threads
    radar::Watch m_watch;
    net::detail::Descriptor m_reader; // keeps a FIFO's until the recorder has it
    Recorder m_recorder;              // makes the file, when nothing else is refused any more
    std::map<Contents::Key, std::unique_ptr<Tap>> m_taps;
    std::set<Place> m_refused; // that was told of
    std::set<std::string> m_unheard{m_options.names.begin(), m_options.names.end()};
    bool m_toldUnheard = false;
    bool m_heardAny = false; // a radar that was wanted
    std::size_t m_radars = 0;
    const Clock::time_point m_start = Clock::now();
    Clock::time_point m_nextDrawing = m_start;
    Recorder::Counts m_before;
    StatusLine m_status;
};

int record(Options& options, Output& output) {
    options.size = bytesOf(options.sizeText);
    options.rotateAt = bytesOf(options.rotateText);
    allowDescriptors();
    std::signal(SIGXFSZ, SIG_IGN); // a limit of the file's size is told like a full disk
    return Record(options, output).run();
}

} // namespace

void addRecord(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("record", "Record what radars announce, negotiate and send, as pcapng",
                                 [options](Output& output) { return record(*options, output); });
    syntax.option("names", options->names, "NAME", "The radars' names as list prints them (default: all)");
    syntax.required("-o,--output", options->file, "FILE",
                    "The file to write; none with content is overwritten", checkFile);
    syntax.option(
        "--streams", options->streams, "LIST",
        "all (default), or image, image-control, image-state, arpa, arpa-control, arpa-state, original, "
        "with commas; what radars announce and negotiate is recorded in any case",
        checkStreams);
    syntax.option("--duration", options->duration, "S", "End after so many seconds",
                  checkNumber(0.1, 1e9, "is no duration: seconds"));
    syntax.option("--size", options->sizeText, "BYTES", "End with so many bytes: 500M, 1G", checkSize);
    syntax.option("--rotate", options->rotateText, "BYTES",
                  "Begin a new file after so many bytes; the files' names have numbers", checkSize);
    syntax.option("--keep", options->keep, "N",
                  "Keep so many of these files, the newest; those of earlier recordings stay",
                  checkWholeNumber(1, 99999, "is no number of files"));
    syntax.need("--keep", "--rotate");
    addLocalOptions(syntax, options->local);
}
