#include "command.h"
#include "loop.h"
#include "recorded.h"
#include "search.h"
#include "status_line.h"
#include "table.h"

#include <RadarWatch/recording/group_socket.h>
#include <RadarWatch/recording/replayed_radar.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/udpsocket.h>

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits>
#include <map>
#include <random>

namespace {

using namespace std::chrono_literals;
using namespace radar::recording;
using Clock = std::chrono::steady_clock;
using net::detail::Descriptor;

struct Options {
    std::string file;
    LocalOptions local;
    std::string speed = "1";
    std::string radar; // empty: all
    int asId = 0;      // 0: as recorded
    bool repeat = false;
    double from = 0; // seconds
    double to = std::numeric_limits<double>::infinity();
};

constexpr auto kLook = 2500ms;    // how long to listen for radars that are there
constexpr auto kObjection = 1s;   // how long hosts wait for one
constexpr auto kQueryPeriod = 1s; // meanwhile
constexpr auto kServing = 20ms;   // how often the radars are looked after at least
constexpr auto kPutOff = 80ms;    // and how long that may wait while datagrams are due
constexpr auto kMoment = 2ms;     // before a datagram is due: nothing else is begun
constexpr auto kRedraw = 200ms;
constexpr int kReceiveBuffer = 256 * 1024; // bytes

NetAddress endpointOf(const wire::Group& group) {
    return {net::transAddr(group.address), net::HtoNs(group.port)};
}

bool isSame(const NetAddress& one, const NetAddress& other) {
    return one.ip == other.ip && one.port == other.port;
}

/// The groups of radars: a recording may hold what other equipment said, which is nobody's business here.
bool isRadarGroup(const NetAddress& endpoint) {
    const std::uint32_t net = net::NtoHl(endpoint.ip) >> 16;
    return net == (236 << 8 | 6) || net == (234 << 8 | 5);
}

/// The sockets on the LAN that the recording is played to.
class Lan {
public:
    /// @throws std::system_error
    explicit Lan(unsigned int localIp, Loop& loop) : m_socket(net::detail::openSocket(SOCK_DGRAM)) {
        const std::string interface = net::localIfaName(localIp);
        const std::string device = interface.substr(0, interface.find(':')); // without an alias's number
        const sockaddr_in own = net::detail::makeAddress(localIp, 0);
        sockaddr_in bound{};
        socklen_t length = sizeof bound;
        using net::detail::setOption;
        if (!m_socket.isOpen() || !net::detail::bindTo(m_socket, own) ||
            ::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0 ||
            !setOption(m_socket, IPPROTO_IP, IP_MULTICAST_IF, in_addr{localIp}) ||
            !setOption(m_socket, IPPROTO_IP, IP_MULTICAST_LOOP, 1)) // for a display on this computer
            throw std::system_error(errno, std::generic_category(), "a socket to send from");
        m_own = {bound.sin_addr.s_addr, bound.sin_port};
        for (const wire::Group* group : {&wire::kDiscovery, &wire::kNegotiation}) {
            m_groups.push_back(openGroup(device, endpointOf(*group), kReceiveBuffer));
            if (!m_groups.back().isOpen())
                throw std::system_error(errno, std::generic_category(),
                                        std::string("group ") + group->address);
            loop.watch(m_groups.back().get());
        }
    }

    /// @return errno; 0: it is on its way
    int send(const NetAddress& destination, std::string_view bytes) const {
        const sockaddr_in address = net::detail::makeAddress(destination.ip, net::NtoHs(destination.port));
        const ssize_t sent =
            net::detail::sendTo(m_socket, bytes.data(), static_cast<int>(bytes.size()), address);
        return sent < 0 ? errno : 0;
    }
    int send(const wire::Group& group, std::string_view bytes) const {
        return send(endpointOf(group), bytes);
    }

    /// Shows what has come from others: Take(message, isDiscovery, source).
    template <class Take>
    void receive(Take&& take) {
        for (std::size_t i = 0; i < m_groups.size(); ++i)
            for (;;) {
                char buffer[1024]; // the longest message has 222 bytes
                const net::detail::Received received =
                    net::detail::receiveFrom(m_groups[i], buffer, sizeof buffer);
                if (!received.isDatagram())
                    break;
                const NetAddress source{received.source.sin_addr.s_addr, received.source.sin_port};
                if (!isSame(source, m_own))
                    take(std::string_view(buffer, static_cast<std::size_t>(received.count)), i == 0, source);
            }
    }

private:
    Descriptor m_socket;
    std::vector<Descriptor> m_groups; // discovery, negotiation
    NetAddress m_own{};
};

class Replay {
public:
    Replay(const Options& options, Output& output)
        : m_options(options), m_output(output), m_speed(std::strtod(options.speed.c_str(), nullptr)),
          m_recorded(lookThrough(options.file)), m_lan(localAddress(options.local), m_loop) {
        if (!m_recorded.broken.empty())
            tell("radarctl: " + printable(m_recorded.broken) + "; what is before that is replayed\n");
        chooseRadars();
        const Time start = m_recorded.contents.total().first;
        m_from = start + offset(options.from);
        m_to = std::min(m_recorded.contents.total().last, start + offset(options.to));
        if (m_from > m_to)
            throw Failure(kUsage, "there is nothing in that span: the recording has " +
                                      std::to_string((m_recorded.contents.total().last - start) / 1s) + " s");
    }

    int run() {
        ::prctl(PR_SET_TIMERSLACK, 1UL); // ns; refused: pauses end 50 us late
        if (!look())
            return kFound;
        m_output.write("replaying " + std::to_string(m_radars.size()) +
                       (m_radars.size() == 1 ? " radar" : " radars") + "; Ctrl-C ends\n");
        do
            if (!play())
                break;
        while (m_options.repeat);
        report();
        return m_failed == 0 ? kFound : kNothingFound;
    }

private:
    static Time offset(double seconds) {
        constexpr double kMost = 1e9; // s
        return std::chrono::duration_cast<Time>(
            std::chrono::duration<double>(std::clamp(seconds, 0.0, kMost)));
    }

    void chooseRadars() {
        std::set<std::string> names;
        std::set<std::string> chosen;
        std::random_device seed;
        for (const Contents::Radar& radar : m_recorded.contents.radars()) {
            names.insert(radar.name);
            if (m_options.radar.empty() || radar.name == m_options.radar ||
                printable(radar.name) == m_options.radar) {
                chosen.insert(radar.name);
                m_radars.emplace_back(radar, static_cast<std::uint8_t>(m_options.asId), seed(), kObjection);
            }
        }
        if (m_radars.empty() && !m_options.radar.empty())
            throw Failure(kNothingFound, "no radar \"" + printable(m_options.radar) + "\" in the recording" +
                                             (names.empty() ? "" : "; there are: " + inWords(names)));
        if (m_options.asId != 0 && chosen.size() != 1)
            throw Failure(kUsage,
                          "--as-id is for one radar, which --radar names; there are: " + inWords(names));
        if (m_options.asId != 0 && m_radars.front().hostId() == 0)
            throw Failure(kUsage, printable(m_radars.front().name()) + " is not in the plan of host ids");
    }

    /// @throws Failure for an announcement of somebody else's radar that has a name or an id of ours
    void refuseSame(std::string_view message, const NetAddress& source) const {
        const auto announcement = protocol::readAnnouncement(message, {});
        if (!announcement)
            return;
        const int id = protocol::announcedHostId(message);
        const std::string from = std::string(" is held by a radar at ") + net::transAddr(source.ip);
        for (const ReplayedRadar& radar : m_radars) {
            if (radar.name() == announcement->name.view())
                throw Failure(kNothingFound, "the name " + printable(radar.name()) + from);
            if (id != 0 && radar.hostId() == id)
                throw Failure(kNothingFound, "host id " + std::to_string(id) + from + ", " +
                                                 printable(std::string(announcement->name.view())));
        }
    }

    /// Listens for radars that are there. @return false when stopped
    bool look() {
        const auto end = Clock::now() + kLook;
        for (auto nextQuery = Clock::now(); Clock::now() < end;) {
            if (Clock::now() >= nextQuery) {
                if (const int error = m_lan.send(wire::kDiscovery, wire::text(wire::kQuery)))
                    throw Failure(kNotAllowed, std::string("cannot send: ") + std::strerror(error));
                nextQuery += kQueryPeriod;
            }
            if (m_loop.wait(std::min(end, nextQuery) - Clock::now()) == Loop::Event::Stop)
                return false;
            m_lan.receive([this](std::string_view message, bool isDiscovery, const NetAddress& source) {
                if (isDiscovery)
                    refuseSame(message, source);
            });
        }
        return true;
    }

    /// The moment at which a position is due.
    Clock::time_point due(Time position) const {
        if (m_speed <= 0) // as fast as it goes
            return m_start;
        return m_start + std::chrono::duration_cast<Clock::duration>((position - m_from) / m_speed);
    }

    /// Once from the first position to the last. @return false when stopped
    bool play() {
        m_start = Clock::now() + kLead;
        Reader reader(m_options.file);
        m_position = m_from;
        try {
            while (const auto datagram = reader.next())
                if (datagram->time >= m_from && datagram->time <= m_to) {
                    if (!waitFor(datagram->time))
                        return false;
                    m_position = std::max(m_position, datagram->time);
                    send(*datagram);
                }
        } catch (const BrokenFile&) {
            // said before
        }
        return waitFor(m_to);
    }

    /// Serves the LAN until that position is due, but not where it is due in a moment. @return false when
    /// stopped
    bool waitFor(Time position) {
        const auto target = due(position);
        for (;;) {
            const auto now = Clock::now();
            if (now < m_nextServing + kPutOff) {
                if (now >= target)
                    return true;
                if (target - now < kMoment) {
                    sleepUntil(target);
                    return true;
                }
            }
            const auto pause =
                now < m_nextServing ? std::min(target - kMoment, m_nextServing) - now : Clock::duration(0);
            const Loop::Event event = m_loop.wait(pause);
            if (event == Loop::Event::Stop)
                return false;
            if (event == Loop::Event::Wake || Clock::now() >= m_nextServing)
                serve(position);
        }
    }

    /// Whatever keeps this program from running meanwhile, the end does not move.
    static void sleepUntil(Clock::time_point moment) {
        const auto sinceBoot = moment.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceBoot);
        const timespec end{seconds.count(), static_cast<long>((sinceBoot - seconds).count())};
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR)
            continue;
    }

    /// @param next position of a datagram: before it is sent, nobody is told of what follows
    void serve(Time next) {
        const auto now = Clock::now();
        m_nextServing = now + kServing;
        m_targets.clear(); // a radar may hold another id afterwards
        Time position = m_position;
        if (m_speed > 0 && now < m_start)
            position = m_from - std::chrono::duration_cast<Time>((m_start - now) * m_speed);
        else if (m_speed > 0)
            position = std::min(next, m_from + std::chrono::duration_cast<Time>((now - m_start) * m_speed));
        const Time lead = m_speed > 0 ? std::chrono::duration_cast<Time>(kLead * m_speed) : Time(0);
        for (ReplayedRadar& radar : m_radars)
            act(radar, radar.advance(position, lead, now));
        m_lan.receive([this](std::string_view message, bool isDiscovery, const NetAddress& source) {
            if (!isDiscovery) {
                for (ReplayedRadar& radar : m_radars)
                    act(radar, radar.receive(message));
                if (message == wire::text(wire::kReset))
                    print("reset asked for");
            } else if (message == wire::text(wire::kQuery)) {
                answer();
            } else {
                refuseSame(message, source);
            }
        });
        show(position);
    }

    void print(const std::string& line) {
        m_status.wipe();
        m_output.write(line + "\n");
    }

    /// Sends what a radar has to say about its id, and lets the others hear it, as they would on a LAN.
    void act(ReplayedRadar& speaker, const ReplayedRadar::Output& output) {
        if (output.loggedIn)
            print(printable(speaker.name()) + " holds host id " + std::to_string(*output.loggedIn));
        if (!output.message)
            return;
        note(m_lan.send(wire::kNegotiation, wire::text(*output.message)));
        for (ReplayedRadar& other : m_radars)
            if (other.name() != speaker.name()) // else it is the same one, at another address
                act(other, other.receive(wire::text(*output.message)));
    }

    void answer() {
        for (const ReplayedRadar& radar : m_radars)
            if (const std::string announcement = radar.answer(); !announcement.empty())
                note(m_lan.send(wire::kDiscovery, announcement));
    }

    /// Where a recorded datagram goes now; nothing: it is not replayed.
    std::optional<NetAddress> target(const Datagram& datagram) const {
        if (isFor(datagram, wire::kDiscovery) || isFor(datagram, wire::kNegotiation))
            return std::nullopt; // said again
        std::optional<NetAddress> found;
        for (const ReplayedRadar& radar : m_radars)
            if (const auto own = radar.target(datagram.destination, datagram.time)) {
                found = own;
                if (radar.source() == datagram.source.ip) // of several with one id, the sender
                    break;
            }
        if (!found && m_options.radar.empty() && isRadarGroup(datagram.destination))
            found = datagram.destination;
        if (found && !IN_MULTICAST(net::NtoHl(found->ip)))
            return std::nullopt;
        return found;
    }

    void send(const Datagram& datagram) {
        const auto [known, isNew] = m_targets.try_emplace(
            {Contents::keyOf(datagram.source).first, Contents::keyOf(datagram.destination)});
        if (isNew)
            known->second = target(datagram);
        if (const auto& destination = known->second)
            note(m_lan.send(*destination, datagram.payload));
        else if (!isFor(datagram, wire::kDiscovery) && !isFor(datagram, wire::kNegotiation))
            ++m_leftOut;
    }

    void note(int error) {
        ++(error == 0 ? m_sent : m_failed);
        if (error != 0)
            m_error = error;
    }

    void show(Time position) {
        if (!m_status.isShown() || Clock::now() < m_nextDrawing)
            return;
        m_nextDrawing = Clock::now() + kRedraw;
        char text[100];
        std::snprintf(text, sizeof text, "%.1f of %.1f s, %s sent",
                      std::chrono::duration<double>(std::max(Time(0), position - m_from)).count(),
                      std::chrono::duration<double>(m_to - m_from).count(),
                      counted(m_sent, "datagram").c_str());
        m_status.show(text);
    }

    void report() {
        std::string text = counted(m_sent, "datagram") + " sent";
        if (m_failed > 0)
            text += ", " + std::to_string(m_failed) + " not: " + std::strerror(m_error);
        if (m_leftOut > 0)
            text += ", " + std::to_string(m_leftOut) + " left out that are of no radar replayed";
        if (const std::string left = leftOut(m_recorded.counts); !left.empty())
            text += ", left out of the file: " + left;
        if (!m_recorded.notes.tcp.empty())
            text += ", bytes of TCP connections left out";
        print(text);
    }

    static constexpr auto kLead = 2100ms; // a login takes two seconds
    /// Of a source, and of what it sent to.
    using Way = std::pair<std::uint32_t, Contents::Key>;

    const Options& m_options;
    Output& m_output;
    const double m_speed; // 0: as fast as it goes
    Loop m_loop;
    const Recorded m_recorded;
    Lan m_lan;
    std::deque<ReplayedRadar> m_radars;
    std::map<Way, std::optional<NetAddress>> m_targets; // since the last serving
    Time m_from{};
    Time m_to{};
    Time m_position{};
    Clock::time_point m_start{};
    Clock::time_point m_nextServing{};
    Clock::time_point m_nextDrawing{};
    std::uint64_t m_sent = 0;
    std::uint64_t m_failed = 0;
    std::uint64_t m_leftOut = 0;
    int m_error = 0;
    StatusLine m_status;
};

std::string checkSpeed(const std::string& text) {
    return text == "max" ? "" : checkNumber(0.01, 1000, "is no speed: 0.01 to 1000, or max")(text);
}

int replay(const Options& options, Output& output) {
    return Replay(options, output).run();
}

} // namespace

void addReplay(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("replay", "Let the radars of a recording live again on one interface",
                                 [options](Output& output) { return replay(*options, output); });
    syntax.required("file", options->file, "FILE",
                    "A recording: of radarctl, or pcap or pcapng of other programs");
    syntax.required("--interface", options->local.interface, "NAME", "The interface to send on",
                    checkInterface);
    syntax.option("--speed", options->speed, "N", "So many times as fast, 1 unless given; or max",
                  checkSpeed);
    syntax.option("--radar", options->radar, "NAME", "This radar only");
    syntax.option("--as-id", options->asId, "ID", "The host id of that radar, instead of the recorded one",
                  checkHostId);
    syntax.flag("--repeat", options->repeat, "Begin again at the end, until stopped");
    syntax.option("--from", options->from, "S", "Begin so many seconds after the recording's start",
                  checkNumber(0, 1e9, "is no position: seconds"));
    syntax.option("--to", options->to, "S", "End so many seconds after the recording's start",
                  checkNumber(0, 1e9, "is no position: seconds"));
}
