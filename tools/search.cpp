#include "search.h"

#include "progress.h"
#include "table.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kAnswerTime = 1s; // every host answers in milliseconds
constexpr auto kProgress = 250ms;
constexpr int kAtOnce = 1024; // events: signals wait meanwhile

std::string checkAddress(const std::string& text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1 ? "" : "'" + text + "' is no IPv4 address";
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + printable(word);
    return words.empty() ? "none" : text;
}

void requireSockets() {
    if (!net::detail::openSocket(SOCK_DGRAM).isOpen())
        throw std::system_error(errno, std::generic_category(), "this computer allows no UDP socket");
}

} // namespace

std::string checkInterface(const std::string& name) {
    return name.empty() ? "'' is no interface" : "";
}

void addLocalOptions(Syntax& syntax, LocalOptions& options) {
    syntax.option("--local", options.address, "IP",
                  "The local address that leads to the radars, instead of a search", checkAddress);
    syntax.option("--interface", options.interface, "NAME",
                  "The interface that leads to the radars, instead of a search", checkInterface);
    syntax.exclude("--interface", "--local");
}

unsigned int localAddress(const LocalOptions& options) {
    if (options.address.empty() && options.interface.empty())
        return 0;
    std::vector<std::string> present;
    errno = 0; // the library tells of a list that it cannot get by its being empty
    const auto interfaces = net::localNetworkInterfaces();
    if (interfaces.empty() && errno != 0)
        throw std::system_error(errno, std::generic_category(), "the interfaces cannot be listed");
    for (const auto& [address, interface] : interfaces) {
        if (interface.ip == options.address || interface.name == options.interface)
            return address;
        present.push_back(options.address.empty() ? interface.name : interface.ip);
    }
    if (options.address.empty())
        throw Failure(kUsage, "no interface \"" + printable(options.interface) +
                                  "\" with an IPv4 address; there are: " + joined(present));
    throw Failure(kUsage, options.address + " is no address of this computer; it has: " + joined(present));
}

unsigned int checkedLocalAddress(const LocalOptions& options) {
    requireSockets();
    return localAddress(options);
}

void addSearchOptions(Syntax& syntax, SearchOptions& options) {
    addLocalOptions(syntax, options.local);
    syntax.option("--timeout", options.timeout, "S", "Seconds after which to give up (default 15)",
                  checkSeconds(0.1, "time-out"));
}

Search::Search(const SearchOptions& options)
    : m_watch({.localAddress = checkedLocalAddress(options.local)}), m_timeout(options.timeout) {
    m_loop.watch(m_watch.descriptor());
}

/// For Watch::radars() to tell what they say.
void Search::takeEvents() {
    for (int i = 0; i < kAtOnce && m_watch.next(0ms); ++i)
        continue;
}

Search::End Search::until(const std::function<bool(const std::vector<radar::Radar>&)>& enough) {
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_timeout));
    Progress progress(deadline);
    auto answered = Clock::time_point::max();
    for (;;) {
        takeEvents();
        const auto now = Clock::now();
        const unsigned int localIp = m_watch.localAddress().address;
        progress.show(localIp);
        if (localIp != 0 && answered == Clock::time_point::max())
            answered = now + kAnswerTime;
        const bool isLast = now >= deadline;
        if (isLast || now >= answered) {
            if (enough(entriesOf(m_watch.radars())))
                return End::Enough;
            if (isLast)
                return End::TimedOut;
            answered = now + kAnswerTime;
        }
        const auto next = std::min({deadline, answered, now + kProgress});
        if (m_loop.wait(std::chrono::ceil<std::chrono::milliseconds>(next - now)) == Loop::Event::Stop)
            return End::Stopped;
    }
}

Search::End Search::pauseUntil(Clock::time_point moment) {
    for (auto now = Clock::now(); now < moment; now = Clock::now()) {
        if (m_loop.wait(std::chrono::ceil<std::chrono::milliseconds>(moment - now)) == Loop::Event::Stop)
            return End::Stopped;
        takeEvents();
    }
    return End::TimedOut;
}

radar::Radar Search::find(const std::string& name) {
    radar::Radar found;
    std::vector<std::string> names;
    const End end = until([&](const std::vector<radar::Radar>& entries) {
        names.clear();
        for (const radar::Radar& entry : entries) {
            names.push_back(entry.name);
            if (entry.name == name || printable(entry.name) == name)
                found = entry;
        }
        return !found.streams.empty();
    });
    if (end == End::Enough)
        return found;
    if (end == End::Stopped)
        throw Failure(kNothingFound, "stopped before the radar was found");
    throw Failure(kNothingFound, "no radar \"" + printable(name) + "\"; " +
                                     (names.empty() ? "none was found (see radarctl doctor)"
                                                    : "there are: " + joined(names)));
}
