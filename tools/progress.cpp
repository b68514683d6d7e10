#include "progress.h"

#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <unistd.h>

#include <cstdio>

namespace {

using namespace std::chrono_literals;
using std::chrono::ceil;
using std::chrono::seconds;

/// The client's search goes through these, again and again.
struct Pass {
    const char* text;
    seconds length;
};
constexpr Pass kPasses[] = {
    {"listening for beacons", 3s}, {"asking for announcements", 3s}, {"pausing before the next pass", 5s}};

std::string currentPass(std::chrono::steady_clock::duration elapsed) {
    for (;;)
        for (const Pass& pass : kPasses) {
            if (elapsed < pass.length)
                return std::string(pass.text) + ", " +
                       std::to_string(ceil<seconds>(pass.length - elapsed).count()) + " s";
            elapsed -= pass.length;
        }
}

std::string interfaceNames() {
    std::string names;
    for (const auto& [address, interface] : net::localNetworkInterfaces())
        if (interface.name != "lo")
            names += (names.empty() ? "" : ", ") + printable(interface.name);
    return names.empty() ? "lo" : names;
}

} // namespace

Progress::Progress(std::chrono::steady_clock::time_point deadline)
    : m_deadline(deadline), m_isTerminal(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (!m_shown.empty())
        std::fputs("\r\x1b[K", stderr);
}

void Progress::show(unsigned int localIp) {
    if (!m_isTerminal)
        return;
    const auto now = std::chrono::steady_clock::now();
    const std::string left = std::to_string(ceil<seconds>(m_deadline - now).count());
    const std::string text =
        localIp != 0 ? "asking on " + std::string(net::transAddr(localIp)) + "; giving up in " + left + " s"
                     : "searching on " + interfaceNames() + ": " + currentPass(now - m_start) +
                           "; giving up in " + left + " s";
    if (text == m_shown)
        return;
    // No wrapping meanwhile: a line that the terminal breaks could not be taken back.
    std::fprintf(stderr, "\r\x1b[K\x1b[?7l%s\x1b[?7h", text.c_str());
    std::fflush(stderr);
    m_shown = text;
}
