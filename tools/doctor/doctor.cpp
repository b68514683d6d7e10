#include "doctor.h"

#include "../command.h"
#include "../json.h"
#include "../search.h"
#include "../status_line.h"
#include "../table.h"
#include "bundle.h"
#include "followed_image.h"
#include "observation.h"

#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <system_error>

namespace doctor {
namespace {

using namespace std::chrono_literals;

constexpr Seconds kQuickLook = 1500ms;

struct Options {
    bool json = false;
    bool list = false;
    double seconds = 10;
    LocalOptions local;
    std::string follow; // name of a radar; empty: none is followed
    std::string bundle; // path; empty: none is wanted
    bool redact = false;
};

/// @param socketsBefore read before anything that is called with it was made
/// @param followed      may be null
Observation observe(const std::string& only, Seconds duration, bool quick, Loop& loop,
                    std::vector<UdpSocketEntry> socketsBefore, std::unique_ptr<FollowedImage> followed) {
    Observation seen;
    seen.socketsBefore = std::move(socketsBefore);
    const std::vector<Interface> all = readInterfaces();
    seen.interfaces = all;
    for (const Interface& interface : all)
        seen.ownHardware.insert(interface.hardware);
    if (!only.empty()) {
        seen.only = only;
        const std::string name = only.substr(0, only.find(':')); // without an alias's number
        std::erase_if(seen.interfaces, [&](const Interface& interface) { return interface.name != name; });
        if (seen.interfaces.empty())
            throw Failure(kUsage, "no network is behind interface \"" + printable(only) + "\"");
    }
    seen.profile = readProfile(quick ? 400ms : 2s);
    seen.discoveryRoute = routeTo(net::transAddr(wire::kDiscovery.address), all);
    seen.groupsRoute = routeTo(net::transAddr("236.6.255.255"), all); // which nobody uses
    seen.groupRoutes = readGroupRoutes();
    const unsigned long drops = reversePathDrops();
    seen.listening = listen(seen.interfaces, duration, quick, loop, [&] {
        if (followed)
            followed->look();
    });
    seen.reversePathDrops = reversePathDrops() - drops;
    if (followed)
        seen.image = followed->seen();
    followed.reset();
    seen.socketsAfter = readUdpSockets();
    seen.igmp = readIgmp();
    if (quick)
        seen.rules.error = "not asked for";
    else
        seen.rules = readRuleset();
    for (const auto& [index, sources] : seen.listening.onWire)
        for (const unsigned int source : sources)
            seen.routesToRadars[source] = routeTo(source, all);
    return seen;
}

std::string line(const Finding& finding) {
    return finding.what + (finding.remedy.empty() ? "" : "; " + finding.remedy);
}

/// A paragraph that goes on indented where a terminal's line is full; one line elsewhere.
/// @param output null: a file
std::string paragraph(const std::string& text, std::size_t indent, const Output* output) {
    const bool isTerminal = output != nullptr && output->isTerminal();
    const auto width = static_cast<std::size_t>(isTerminal ? output->terminalSize().columns : 0);
    std::string result = std::string(indent, ' ');
    std::size_t column = indent;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ' ');) { // several blanks are part of a name
        if (column > indent && width > 0 && column + 1 + word.size() > width) {
            result += "\n" + std::string(indent + 4, ' ');
            column = indent + 4;
        } else if (column > indent) {
            result += ' ';
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result + "\n";
}

/// @param output null: a file
std::string asText(const Report& report, const std::string& only, const Output* output) {
    const auto styled = [output](Output::Style style, const std::string& text) {
        return output != nullptr ? output->styled(style, text) : text;
    };
    std::string result;
    for (const Finding& finding : report.findings) {
        result += styled(finding.isComplaint() ? Output::Style::Bad : Output::Style::Heading,
                         word(finding.severity) + std::string(" ") + finding.word()) +
                  "\n" + paragraph(line(finding), 4, output) +
                  paragraph("measured: " + finding.measured, 4, output);
    }
    result += std::string(report.findings.empty() ? "" : "\n") +
              styled(Output::Style::Heading, "looked at:") + "\n";
    for (const Check& check : report.checks)
        result += paragraph(check.subject + ": " + check.seen, 4, output);
    if (std::ranges::none_of(report.findings, &Finding::isComplaint))
        result += styled(Output::Style::Good, "nothing to complain about") +
                  (only.empty() ? "" : " on " + printable(only) + ", which alone was looked at") + "\n";
    return result;
}

std::string asJson(const Report& report, const Observation& seen) {
    nlohmann::ordered_json document = jsonDocument();
    document["seconds"] = seen.listening.duration.count();
    document["findings"] = nlohmann::ordered_json::array();
    for (const Finding& finding : report.findings)
        document["findings"].push_back({{"id", finding.word()},
                                        {"severity", word(finding.severity)},
                                        {"what", finding.what},
                                        {"remedy", finding.remedy},
                                        {"measured", finding.measured}});
    document["checks"] = nlohmann::ordered_json::array();
    for (const Check& check : report.checks)
        document["checks"].push_back({{"subject", check.subject}, {"seen", check.seen}});
    return jsonText(document, false);
}

std::string listOfKinds() {
    std::string result;
    for (const Kind& kind : kKinds)
        result +=
            std::string(kind.word) + std::string(20 - std::string(kind.word).size(), ' ') + kind.about + "\n";
    return result;
}

/// The one interface that the command line names, or nothing.
std::string interfaceOf(const LocalOptions& options) {
    return options.address.empty() ? options.interface : net::localIfaName(localAddress(options));
}

int examine(const Options& options, Output& output) {
    if (options.list) {
        output.write(listOfKinds());
        return kFound;
    }
    Loop loop;
    std::vector<UdpSocketEntry> socketsBefore = readUdpSockets(); // the bundle has some, too
    std::unique_ptr<Bundle> bundle;
    if (!options.bundle.empty()) {
        bundle = std::make_unique<Bundle>(options.bundle, options.redact);
        tell(printable(options.bundle) + " will hold:\n" + bundle->list());
    }
    const Observation seen = [&] {
        StatusLine status;
        std::ostringstream text;
        text << "listening and asking for " << options.seconds << " s; Ctrl-C ends";
        status.show(text.str());
        return observe(interfaceOf(options.local), Seconds(options.seconds), false, loop,
                       std::move(socketsBefore),
                       options.follow.empty()
                           ? nullptr
                           : std::make_unique<FollowedImage>(options.follow, localAddress(options.local)));
    }();
    if (seen.listening.stopped) {
        tell("radarctl: stopped before the examination was over\n");
        return kNothingFound;
    }
    const Report report = judge(seen);
    const std::string json = asJson(report, seen);
    try {
        output.write(options.json ? json : asText(report, seen.only, &output));
    } catch (const ReaderGone&) { // who has enough of the report may want the bundle
        if (!bundle)
            throw;
    }
    if (bundle) {
        bundle->write(seen, asText(report, seen.only, nullptr), json);
        tell(printable(options.bundle) + " is written\n");
    }
    return std::ranges::any_of(report.findings, &Finding::isComplaint) ? kNothingFound : kFound;
}

} // namespace

std::optional<std::string> likelyCause(const std::string& interface, Loop& loop) {
    try {
        const Observation seen = observe(interface, kQuickLook, true, loop, readUdpSockets(), nullptr);
        if (seen.listening.stopped)
            return std::nullopt;
        for (const Finding& finding : judge(seen).findings)
            if (finding.isComplaint() && finding.id != Id::NoRadar)
                return line(finding);
    } catch (const std::exception& error) {
        return error.what();
    }
    return std::nullopt;
}

} // namespace doctor

void addDoctor(CommandLine& line) {
    const auto options = std::make_shared<doctor::Options>();
    Syntax syntax =
        line.command("doctor", "Find out why no radar is seen, or two for one, or one that comes and goes",
                     [options](Output& output) { return doctor::examine(*options, output); });
    syntax.flag("--json", options->json, "One JSON object instead of text");
    syntax.flag("--list", options->list, "List what can be found, and look at nothing");
    syntax.option("--seconds", options->seconds, "S", "How long to listen and ask (default 10)",
                  checkSeconds(0.5, "time to look"));
    addLocalOptions(syntax, options->local);
    syntax.option("--follow", options->follow, "RADAR",
                  "Also receive that radar's image meanwhile: does a switch forget it after some minutes?");
    syntax.option("--bundle", options->bundle, "FILE.tar.gz",
                  "Also write what support needs to a file; what that will hold is listed first");
    syntax.flag("--redact", options->redact, "Replace addresses and names in the bundle");
    syntax.need("--redact", "--bundle");
    for (const char* const name : {"--json", "--bundle", "--follow"})
        syntax.exclude("--list", name);
}
