#include "progress.h"

#include "table.h"

#include <UdpSocket/udpsocket.h>

#include <set>
#include <string>

namespace {

using namespace std::chrono_literals;
using std::chrono::ceil;
using std::chrono::seconds;

constexpr auto kAtOnce = 200ms; // in which an address that is set is in force, and needs no search

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
    std::set<std::string> names; // of which one may have several addresses
    for (const auto& [address, interface] : net::localNetworkInterfaces())
        if (interface.name != "lo")
            names.insert(interface.name);
    return names.empty() ? "lo" : inWords(names);
}

} // namespace

Progress::Progress(std::chrono::steady_clock::time_point deadline) : m_deadline(deadline) {}

void Progress::show(unsigned int localIp) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_line.isShown() || now - m_start < kAtOnce)
        return;
    const std::string left = std::to_string(ceil<seconds>(m_deadline - now).count());
    m_line.show(localIp != 0
                    ? "asking on " + std::string(net::transAddr(localIp)) + "; giving up in " + left + " s"
                    : "searching on " + interfaceNames() + ": " + currentPass(now - m_start) +
                          "; giving up in " + left + " s");
}
