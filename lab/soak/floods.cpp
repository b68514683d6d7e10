// A stranger on the LAN who sends all kinds of forged messages as fast as it can.

#include "stage.h"

#include <UdpSocket/detail/descriptor.h>

#include <netinet/in.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace soak {

namespace {

using net::detail::Descriptor;

constexpr double kRate = 100'000; // datagrams a second
constexpr size_t kTableBound = 4096;

/// Sends forged messages in batches from the stranger, at the rate above where the machine can.
class Flood {
public:
    /// @param forge makes the datagram with that number
    using Forge = std::string (*)(unsigned long number);
    Flood(const lab::Node& node, const wire::Group& group, Forge forge) {
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
                      -20); // a stranger's machine does not slow down with ours, where allowed
        const Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
        sockaddr_in to{AF_INET, net::HtoNs(group.port), {net::transAddr(group.address)}, {}};
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
                            std::chrono::duration<double>(static_cast<double>(m_sent) / kRate)));
        }
        m_seconds = secondsSince(start);
    }

    unsigned long m_sent = 0; // these two: the thread's, until it has ended
    double m_seconds = 0;
    std::jthread m_thread;
};

/// An announcement under a name that was never there, with what a shell, a terminal, JSON or printf would
/// take for more than a name.
std::string forgedAnnouncement(unsigned long number) {
    constexpr const char* kTricks[] = {"",         "$(id)", "\x1b[2J", "\"},{\"", "%n%s",
                                       "\xff\xfe", "`id`",  "../",     "\r\n"};
    char name[17];
    std::snprintf(name, sizeof name, "%s%08lX", kTricks[number % std::size(kTricks)], number);
    std::string announcement(wire::kShortAnnouncement.length, '\0');
    announcement.replace(0, 2, wire::text(wire::kAnnouncement));
    return announcement.replace(wire::kName.offset, std::strlen(name), name);
}

std::string forgedObjection(unsigned long number) { // to one id after the other
    const auto id = static_cast<char>(16 + number % 48);
    return std::string(wire::text(wire::kObjection)) + id + '\1';
}

std::string forgedReset(unsigned long) {
    return std::string(wire::text(wire::kReset));
}

std::string forgedQuery(unsigned long) {
    return std::string(wire::text(wire::kQuery));
}

/// The longest that a call has taken, and how often a real radar was missing.
struct Looks {
    double longestNames = 0; // ms
    double longestAddress = 0;
    size_t most = 0;
    int missing = 0;

    void look(const Client& client, const std::vector<std::string>& real) {
        auto start = Clock::now();
        most = std::max(most, client.client().getRadar().size());
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
bool listIsPrintable(Stage& stage) {
    lab::Process list = stage.display().start(
        {.command = {lab::programBeside("radarctl"), "list", "--local", kDisplayAddress},
         .errorFile = "/run/soak.errors"});
    if (list.wait(60s) != 0)
        throw Broken("radarctl list fails");
    return std::ranges::none_of(list.output(), [](char c) {
        return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7f';
    });
}

Figures announcements(Stage& stage) {
    std::vector<std::string> real{kStanding};
    std::vector<std::unique_ptr<HostServer>> servers;
    for (int i = 0; i < 3; ++i) {
        real.push_back(stage.freshName());
        servers.push_back(stage.serve(stage.host(), real.back(), 21 + i));
    }
    const Client client(stage.display(), kDisplayAddress);
    Watch watch(stage.display(), stage.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"));
    const auto allListed = [&] {
        return std::ranges::all_of(real,
                                   [&](const auto& name) { return client.lists(name) && watch.lists(name); });
    };
    secondsUntil(allListed, 30s, "the real radars are listed");
    const long before = resourcesOf(watch.process().pid()).memory;

    Looks looks;
    Flood flood(stage.stranger(), wire::kDiscovery, forgedAnnouncement);
    for (const auto end = Clock::now() + (stage.full() ? 60s : 15s); Clock::now() < end;) {
        std::this_thread::sleep_for(50ms);
        looks.look(client, real);
        if (!std::ranges::all_of(real, [&](const auto& name) { return watch.lists(name); }))
            ++looks.missing;
    }
    const bool printable = listIsPrintable(stage);
    const double rate = flood.end();
    if (!printable)
        throw Broken("radarctl list prints what a terminal acts on");
    const long after = resourcesOf(watch.process().pid()).memory;
    return {{"times a real radar was missing", static_cast<double>(looks.missing), 0},
            {"names at most", static_cast<double>(looks.most), kTableBound},
            {"MB more in radarctl watch", static_cast<double>(after - before) / 1000, 150},
            {"ms for the longest getRadar", looks.longestNames, 500},
            {"ms for the longest getAddress", looks.longestAddress, 500},
            {"forged a second", rate}};
}

/// The host is to be heard by a display all the time, and to answer quickly afterwards.
Figures againstHost(Stage& stage, const wire::Group& group, Flood::Forge forge) {
    const Client client(stage.display(), kDisplayAddress);
    secondsUntil([&] { return client.lists(kStanding); }, 30s, "the host is listed");
    Looks looks;
    Flood flood(stage.stranger(), group, forge);
    for (const auto end = Clock::now() + (stage.full() ? 60s : 10s); Clock::now() < end;) {
        std::this_thread::sleep_for(50ms);
        looks.look(client, {kStanding});
    }
    const double rate = flood.end();
    Ears ears(stage.stranger(), "10.20.1.250");
    const Ticker asking(stage.stranger(), wire::kDiscovery, std::string(wire::text(wire::kQuery)), 200ms);
    const auto ended = Clock::now();
    const double answers =
        secondsUntil([&] { return ears.heardSince(ended, kStanding); }, 60s, "the host answers");
    return {{"times the host was missing", static_cast<double>(looks.missing), 0},
            {"s until it answers afterwards", answers, 2},
            {"forged a second", rate}};
}

Figures objections(Stage& stage) {
    while (stage.standing().nextLine(0ms)) // what it said earlier
        continue;
    Figures figures = againstHost(stage, wire::kNegotiation, forgedObjection);
    const auto serves = [&] { return stage.standing().lineWith("serving", 0ms).has_value(); };
    figures.push_back({"s more until it has an id anew", secondsUntil(serves, 60s, "the host has an id"), 5});
    return figures;
}

constexpr Row kRows[] = {
    {"flood-names", "Forged announcements with ever new names",
     "up to 100,000 a second for 15 s (60 s with --full), with shell, terminal and JSON tricks",
     "the real radars stay listed, the table holds 4096 names at most, look-ups stay fast", announcements},
    {"flood-objections", "Forged objections",
     "to every id in turn, up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed, answers within 2 s afterwards, and has an id 5 s later", objections},
    {"flood-resets", "Forged resets", "up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed, and answers within 2 s afterwards",
     [](Stage& stage) { return againstHost(stage, wire::kNegotiation, forgedReset); }},
    {"flood-queries", "Forged queries", "up to 100,000 a second for 10 s (60 s with --full)",
     "the host stays listed, and answers within 2 s afterwards",
     [](Stage& stage) { return againstHost(stage, wire::kDiscovery, forgedQuery); }},
};

} // namespace

std::span<const Row> floodRows() {
    return kRows;
}

} // namespace soak
