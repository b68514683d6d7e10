#include "observation.h"

#include "../table.h"

#include <UdpSocket/udpsocket.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>
#include <system_error>

namespace doctor {

namespace {

/// The processes that hold sockets, by the sockets' inodes, as far as /proc shows them.
std::map<unsigned long, int> socketHolders() {
    namespace fs = std::filesystem;
    constexpr std::string_view kSocket = "socket:[";
    std::map<unsigned long, int> holders;
    std::error_code ignored; // processes come and go, and those of others are closed to us
    for (fs::directory_iterator process("/proc", ignored), end; process != end; process.increment(ignored)) {
        const std::string id = process->path().filename();
        if (id.find_first_not_of("0123456789") != std::string::npos)
            continue;
        for (fs::directory_iterator file(process->path() / "fd", ignored); file != end;
             file.increment(ignored))
            if (const std::string target = fs::read_symlink(*file, ignored); target.starts_with(kSocket))
                holders.emplace(std::stoul(target.substr(kSocket.size())), std::stoi(id));
    }
    return holders;
}

bool isBoundTo(const UdpSocketEntry& socket, const wire::Group& group) {
    return socket.port == group.port && socket.ip == net::transAddr(group.address);
}

} // namespace

std::vector<UdpSocketEntry> readUdpSockets() {
    std::vector<UdpSocketEntry> sockets;
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line); // heading
    while (std::getline(table, line)) {
        // slot, local and remote address, state, queues, timer, retransmits, uid, time-out, inode,
        // references, pointer, drops
        std::istringstream words(line);
        std::string slot, local, remote, state, queues, timer, retransmits, timeout, references, pointer;
        UdpSocketEntry entry{};
        if (!(words >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> entry.uid >>
              timeout >> entry.inode >> references >> pointer >> entry.drops) ||
            local.size() != 13)
            continue;
        entry.ip = static_cast<unsigned int>(std::stoul(local.substr(0, 8), nullptr, 16));
        entry.port = static_cast<unsigned short>(std::stoul(local.substr(9), nullptr, 16));
        if (std::ranges::count(kGroups, entry.port, &wire::Group::port) != 0)
            sockets.push_back(entry);
    }
    if (sockets.empty())
        return sockets;
    const std::map<unsigned long, int> holders = socketHolders();
    for (UdpSocketEntry& socket : sockets)
        if (const auto holder = holders.find(socket.inode); holder != holders.end()) {
            socket.process = holder->second;
            std::ifstream name("/proc/" + std::to_string(socket.process) + "/comm");
            std::getline(name >> std::ws, socket.program); // nothing where it has ended
            socket.program = printable(socket.program);
        }
    return sockets;
}

bool Observation::hostHere() const {
    // Of programs only radarctl, which records or looks as doctor does, hears the negotiation without taking
    // part, and hears beacons too wherever it does.
    std::map<std::pair<int, unsigned int>, int> surplus; // by process, or user where that is not known
    for (const UdpSocketEntry& socket : socketsBefore) {
        if (isBoundTo(socket, wire::kNegotiation) && !socket.program.empty() && socket.program != "radarctl")
            return true;
        int& count = surplus[{socket.process, socket.process != 0 ? 0U : socket.uid}];
        count += isBoundTo(socket, wire::kNegotiation) ? 1 : isBoundTo(socket, wire::kBeacon) ? -1 : 0;
    }
    return std::ranges::any_of(surplus, [](const auto& holder) { return holder.second > 0; });
}

namespace {

/// The program that holds a socket, as far as it is known.
std::string holder(const UdpSocketEntry& socket) {
    if (!socket.program.empty())
        return socket.program + " (process " + std::to_string(socket.process) + ")";
    return "a program of user " + std::to_string(socket.uid) +
           (::geteuid() == 0 ? "" : " (could not check which: needs root)");
}

void judgeHolders(const Observation& seen, Report& report) {
    std::string ports;
    for (std::size_t i = 0; i < kGroups.size(); ++i) {
        const wire::Group& group = kGroups[i];
        const std::string port = std::to_string(group.port);
        ports += (ports.empty() ? "" : ", ") + port;
        const bool taken = std::ranges::any_of(seen.listening.results, [i](const auto& result) {
            return !result.second.bound[i] && result.second.joinErrors[i] == EADDRINUSE;
        });
        if (!taken)
            continue;
        std::string holders;
        for (const UdpSocketEntry& socket : seen.socketsBefore)
            if (isBoundTo(socket, group) || (socket.port == group.port && socket.ip == 0))
                holders += (holders.empty() ? "" : ", ") + holder(socket);
        if (holders.empty())
            holders = "a program";
        report.find(Id::PortTaken, Severity::Fault,
                    holders + " holds UDP port " + port + " (" + group.use + ") without address reuse",
                    "end it, or have it set SO_REUSEADDR before it binds",
                    "binding to " + std::string(group.address) + ":" + port + ": " +
                        std::generic_category().message(EADDRINUSE));
    }
    report.check("ports", ports + ": tried to bind to each");
}

void judgeDrops(const Observation& seen, Report& report) {
    unsigned long before = 0;
    for (const UdpSocketEntry& old : seen.socketsBefore) {
        const auto now = std::ranges::find(seen.socketsAfter, old.inode, &UdpSocketEntry::inode);
        if (now != seen.socketsAfter.end() && now->drops > old.drops)
            report.find(Id::SocketDrops, Severity::Warning,
                        holder(old) + " does not empty its socket on port " + std::to_string(old.port) +
                            " in time, and misses datagrams",
                        "have it return from its listeners sooner, or give it a larger receive buffer",
                        counted(now->drops - old.drops, "datagram") + " dropped while it was looked at, " +
                            std::to_string(now->drops) + " in all");
        before += old.drops;
    }
    report.check("sockets", std::to_string(seen.socketsBefore.size()) +
                                " of other programs on these ports, " + counted(before, "datagram") +
                                " dropped by them until now");
}

void judgeErrors(const Observation& seen, Report& report) {
    for (const auto& [index, result] : seen.listening.results) {
        const Interface* interface = seen.interface(index);
        if (interface == nullptr || !interface->usable())
            continue;
        const Severity severity =
            seen.radarHeard() && !seen.radarHeardOn(index) ? Severity::Note : Severity::Fault;
        if (result.sendError != 0 && result.sendError != EPERM) // which is the packet filter's
            report.find(Id::QueryNotSent, severity,
                        "the system refuses to send a query through " + interface->name,
                        "look at the address and the routes of " + interface->name,
                        std::generic_category().message(result.sendError));
        for (std::size_t i = 0; i < kGroups.size(); ++i)
            if (const int error = result.joinErrors[i]; error != 0 && error != EADDRINUSE && error != ENOBUFS)
                report.find(Id::QueryNotSent, severity,
                            "the system refuses to listen to " + std::string(kGroups[i].address) + " on " +
                                interface->name,
                            "look at the address and the flags of " + interface->name,
                            std::generic_category().message(error));
    }
}

} // namespace

Report judgePorts(const Observation& seen) {
    Report report;
    judgeHolders(seen, report);
    judgeDrops(seen, report);
    judgeErrors(seen, report);
    return report;
}

} // namespace doctor
