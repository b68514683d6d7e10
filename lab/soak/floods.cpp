// A stranger on the LAN that sends all kinds of forged messages as fast as it can.

#include "testbed.h"

#include <UdpSocket/base/socket.h>

#include <netinet/in.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace soak {

namespace {

using net::detail::Descriptor;

constexpr double kRate = 100'000; // datagrams a second
constexpr size_t kMaxNames = 4096;
constexpr double kLateLimit = 5;     // s: a query in vain, and the next
constexpr double kLateHostLimit = 8; // s: the same behind a negotiation
constexpr auto kQuiet = 200ms;       // three displays that ask once a second leave longer pauses

/// Sends forged messages in batches from the stranger, at a rate, where the machine can.
class Flood {
public:
    /// @param forge makes the datagram with that number
    using Forge = std::string (*)(unsigned long number);
    Flood(const lab::Node& node, const wire::Group& group, Forge forge, double rate = kRate) : m_rate(rate) {
        const lab::Inside inside = node.enter();
        m_thread =
            std::jthread([this, group, forge](const std::stop_token& stop) { run(group, forge, stop); });
    }
    /// Ends it. @return datagrams a second that were sent
    double end() {
        m_thread.request_stop();
        m_thread.join();
        return static_cast<double>(m_sent) / m_seconds;
    }

private:
    void run(const wire::Group& group, Forge forge, const std::stop_token& stop) {
        constexpr size_t kBatch = 50;
        ::setpriority(PRIO_PROCESS, 0,
                      -20); // as a machine of its own, which ours does not slow down; where allowed
        const Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
        sockaddr_in to = net::detail::makeAddress(net::transAddr(group.address), group.port);
        std::array<std::string, kBatch> texts;
        std::array<iovec, kBatch> buffers{};
        std::array<mmsghdr, kBatch> messages{};
        const auto start = Clock::now();
        while (!stop.stop_requested()) {
            for (size_t i = 0; i < kBatch; ++i) {
                texts[i] = forge(m_sent + i);
                buffers[i] = {texts[i].data(), texts[i].size()};
                messages[i].msg_hdr.msg_name = &to;
                messages[i].msg_hdr.msg_namelen = sizeof to;
                messages[i].msg_hdr.msg_iov = &buffers[i];
                messages[i].msg_hdr.msg_iovlen = 1;
            }
            const int sent = ::sendmmsg(socket.get(), messages.data(), kBatch, 0);
            m_sent += static_cast<unsigned long>(std::max(sent, 0));
            std::this_thread::sleep_until(
                start + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(static_cast<double>(m_sent) / m_rate)));
        }
        m_seconds = secondsSince(start);
    }

    const double m_rate;
    unsigned long m_sent = 0; // these two: the thread's, until it has ended
    double m_seconds = 0;
    std::jthread m_thread;
};

/// An announcement with a new name that contains what a shell, a terminal, JSON or printf would interpret,
/// and now and then one with the name of a real radar.
std::string forgedAnnouncement(unsigned long number) {
    constexpr unsigned long kBetweenRealNames = 64;
    constexpr const char* kTricks[] = {"",         "$(id)", "\x1b[2J", "\"},{\"", "%n%s",
                                       "\xff\xfe", "`id`",  "../",     "\r\n"};
    char name[17];
    if (number % kBetweenRealNames == 0)
        std::snprintf(name, sizeof name, "%s", kPermanentRadar);
    else
        std::snprintf(name, sizeof name, "%s%08lX", kTricks[number % std::size(kTricks)], number);
    std::string announcement(wire::kShortAnnouncement.length, '\0');
    announcement.replace(wire::kCode.offset, wire::kCode.width, wire::text(wire::kAnnouncement));
    return announcement.replace(wire::kName.offset, std::strlen(name), name);
}

std::string forgedObjection(unsigned long number) { // to one id after the other
    const auto id = static_cast<std::uint8_t>(16 + number % 48);
    return std::string(wire::text(wire::Negotiation{wire::kObjection, id}));
}

std::string forgedReset(unsigned long) {
    return std::string(wire::text(wire::kReset));
}

std::string forgedQuery(unsigned long) {
    return std::string(wire::text(wire::kQuery));
}

/// The longest times of calls, and how often a real radar was missing.
struct LookUps {
    double longestNames = 0; // ms
    double longestAddress = 0;
    size_t mostNames = 0;
    int missing = 0;

    void sample(const Client& client, const std::vector<std::string>& real) {
        auto start = Clock::now();
        mostNames = std::max(mostNames, client.client().getRadar().size());
        longestNames = std::max(longestNames, 1000 * secondsSince(start));
        for (const std::string& name : real) {
            start = Clock::now();
            if (client.client().getAddress(name.c_str(), 0) == nullptr)
                ++missing;
            longestAddress = std::max(longestAddress, 1000 * secondsSince(start));
        }
    }
};

/// Whether "radarctl list" prints no byte that a terminal would act on.
bool listIsPrintable(Testbed& testbed) {
    lab::Process list = testbed.display().start(
        {.command = {lab::programBeside("radarctl"), "list", "--local", kDisplayAddress},
         .errorFile = "/run/soak.errors"});
    if (list.wait(60s) != 0)
        throw RequirementFailed("radarctl list fails");
    return std::ranges::none_of(list.output(), [](char c) {
        return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7f';
    });
}

Figures announcements(Testbed& testbed) {
    std::vector<std::string> real{kPermanentRadar};
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int i = 0; i < 3; ++i) {
        real.push_back(testbed.newName());
        servers.push_back(testbed.serve(testbed.host(), real.back(), 21 + i));
    }
    const Client client(testbed.display(), kDisplayAddress);
    Watch watch(testbed.display(), testbed.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"));
    const auto allListed = [&] {
        return std::ranges::all_of(real,
                                   [&](const auto& name) { return client.lists(name) && watch.lists(name); });
    };
    secondsUntil(allListed, 30s, "the real radars are listed");
    const long before = resourcesOf(watch.process().pid()).memory;

    LookUps lookUps;
    Flood flood(testbed.stranger(), wire::kDiscovery, forgedAnnouncement);
    for (const auto end = Clock::now() + (testbed.full() ? 60s : 15s); Clock::now() < end;) {
        std::this_thread::sleep_for(50ms);
        lookUps.sample(client, real);
        if (!std::ranges::all_of(real, [&](const auto& name) { return watch.lists(name); }))
            ++lookUps.missing;
    }
    const bool printable = listIsPrintable(testbed);
    const double rate = flood.end();
    if (!printable)
        throw RequirementFailed("radarctl list prints what a terminal acts on");
    const long after = resourcesOf(watch.process().pid()).memory;
    return {{"times a real radar was missing", static_cast<double>(lookUps.missing), 0},
            {"names at most", static_cast<double>(lookUps.mostNames), kMaxNames},
            {"MB more in radarctl watch", static_cast<double>(after - before) / 1000, 150},
            {"ms for the longest getRadar", lookUps.longestNames, 500},
            {"ms for the longest getAddress", lookUps.longestAddress, 500},
            {"forged a second", rate}};
}

/// Forged names, no more than a display's processor takes, fill its table before a radar comes.
Figures tableFull(Testbed& testbed) {
    constexpr double kTaken = 10'000; // datagrams a second
    const Client client(testbed.display(), kDisplayAddress);
    secondsUntil([&] { return client.lists(kPermanentRadar); }, 30s, "the radar is listed");
    LookUps lookUps;
    Flood flood(testbed.stranger(), wire::kDiscovery, forgedAnnouncement, kTaken);
    secondsUntil([&] { return client.client().getRadar().size() == kMaxNames; }, 30s, "the table is full");
    const std::string name = testbed.newName();
    const auto server = testbed.serve(testbed.host(), name, 30);
    const double late = secondsUntil([&] { return client.lists(name); }, 60s, "a radar that comes is listed");
    for (const auto end = Clock::now() + 15s; Clock::now() < end; std::this_thread::sleep_for(50ms))
        lookUps.sample(client, {kPermanentRadar, name});
    return {{"s until a radar that comes is listed", late, kLateLimit},
            {"times a real one was missing afterwards", static_cast<double>(lookUps.missing), 0},
            {"forged a second", flood.end()}};
}

/// The ids that the permanent host has told to serve since the last call.
int idsOfPermanentHost(Testbed& testbed) {
    int ids = 0;
    while (const auto line = testbed.permanentHost().nextLine(0ms))
        ids += line->starts_with("serving") ? 1 : 0;
    return ids;
}

/// A display must list the host all the time, one that starts meanwhile must find it, and the host must
/// answer quickly afterwards.
/// @param whileFlooded more to try meanwhile
Figures againstHost(Testbed& testbed, const wire::Group& group, Flood::Forge forge,
                    Figures (*whileFlooded)(Testbed&, const Client&)) {
    const Client client(testbed.display(), kDisplayAddress);
    secondsUntil([&] { return client.lists(kPermanentRadar); }, 30s, "the host is listed");
    const pid_t host = testbed.permanentHost().pid();
    const long before = resourcesOf(host).memory;
    LookUps lookUps;
    Flood flood(testbed.stranger(), group, forge);
    const Client late(testbed.display(), kDisplayAddress);
    const double found = secondsUntil([&] { return late.lists(kPermanentRadar); }, 60s,
                                      "a display that starts meanwhile lists the host");
    Figures more = whileFlooded(testbed, client);
    for (const auto end = Clock::now() + (testbed.full() ? 60s : 10s); Clock::now() < end;) {
        std::this_thread::sleep_for(50ms);
        lookUps.sample(client, {kPermanentRadar});
    }
    const double rate = flood.end();
    const GroupListener listener(testbed.stranger(), "10.20.1.250");
    const auto ended = Clock::now();
    const auto answeredIn = [&](Clock::duration time) {
        return listener.receivedSince(Clock::now() - time, kPermanentRadar);
    };
    secondsUntil([&] { return Clock::now() > ended + kQuiet && !answeredIn(kQuiet); }, 60s,
                 "the host has done with the flood");
    const auto quiet = Clock::now();
    const PeriodicSender asking(testbed.stranger(), wire::kDiscovery, std::string(wire::text(wire::kQuery)),
                                200ms);
    secondsUntil([&] { return listener.receivedSince(quiet, kPermanentRadar); }, 60s, "the host answers");
    const double answers = secondsSince(ended);
    Figures figures{
        {"times the host was missing", static_cast<double>(lookUps.missing), 0},
        {"s until a display that starts meanwhile lists it", found, kLateLimit},
        {"s until it has done with the flood, and answers", answers, 2},
        {"MB more in the host", static_cast<double>(resourcesOf(host).memory - before) / 1000, 20},
        {"forged a second", rate}};
    figures.insert(figures.end(), more.begin(), more.end());
    return figures;
}

Figures objections(Testbed& testbed) {
    idsOfPermanentHost(testbed); // earlier ones
    Figures figures = againstHost(testbed, wire::kNegotiation, forgedObjection,
                                  [](Testbed&, const Client&) { return Figures{}; });
    figures.push_back(
        {"s more until it has an id again",
         secondsUntil([&] { return idsOfPermanentHost(testbed) > 0; }, 60s, "the host has an id"), 5});
    return figures;
}

/// A flood that is no reason for the host to change anything, nor for another one not to come.
Figures floodWithoutReason(Testbed& testbed, const wire::Group& group, Flood::Forge forge) {
    idsOfPermanentHost(testbed); // earlier ones
    Figures figures = againstHost(testbed, group, forge, [](Testbed& lan, const Client& client) {
        const std::string name = lan.newName();
        const auto start = Clock::now();
        const lab::Process host = lan.startHost(lan.host(), name, 40);
        secondsUntil([&] { return client.lists(name); }, 60s, "a host that starts meanwhile is listed");
        return Figures{
            {"s until a host that starts meanwhile is listed", secondsSince(start), kLateHostLimit}};
    });
    figures.push_back(
        {"times it negotiated another id", static_cast<double>(idsOfPermanentHost(testbed)), 0});
    return figures;
}

constexpr Fault kFaults[] = {
    {"flood-names", "Forged announcements with ever new names",
     "up to 100,000 a second for 15 s (60 s with --full), with shell, terminal and JSON tricks, and every "
     "64th with the "
     "name of a real radar",
     "the real radars stay listed, the table holds 4096 names at most, look-ups stay fast", announcements,
     Load::Heavy},
    {"flood-full", "Radar that comes when forged names fill the table",
     "10,000 forged a second, every 64th with the name of a listed radar",
     "it is listed within 5 s, and both stay listed", tableFull, Load::Heavy},
    {"flood-objections", "Forged objections",
     "to every id in turn, up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed, a display that starts meanwhile lists it within 5 s; it answers within 2 s "
     "afterwards, "
     "and has an id 5 s later",
     objections, Load::Heavy},
    {"flood-resets", "Forged resets", "up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed under its id, displays and hosts that start meanwhile find each other within 5 s "
     "and 8 s; "
     "it answers within 2 s afterwards",
     [](Testbed& testbed) { return floodWithoutReason(testbed, wire::kNegotiation, forgedReset); },
     Load::Heavy},
    {"flood-queries", "Forged queries", "up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed under its id, displays and hosts that start meanwhile find each other within 5 s "
     "and 8 s; "
     "it answers within 2 s afterwards",
     [](Testbed& testbed) { return floodWithoutReason(testbed, wire::kDiscovery, forgedQuery); },
     Load::Heavy},
};

} // namespace

std::span<const Fault> floodFaults() {
    return kFaults;
}

} // namespace soak
