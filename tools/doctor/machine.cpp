#include "observation.h"

#include <IniProfile/iniprofile.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace doctor {
namespace {

using net::detail::Descriptor;

constexpr const char* kProfile = "profile.ini";
constexpr int kTooSmallBuffer = 128 * 1024; // holds what 49 hosts answer at once, with little to spare
constexpr int kEndpoints = 14;              // of a radar with two streams

/// @return errno of reading the file, ESPIPE for a FIFO, which is not waited for; 0 when it can be read
int readError(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.isOpen() && ::fstat(file.get(), &status) == 0 && S_ISFIFO(status.st_mode))
        return ESPIPE;
    char first;
    return file.isOpen() && ::read(file.get(), &first, 1) != -1 ? 0 : errno;
}

/// @return errno of a TCP connection, 0 when it came about within the time
int connectError(unsigned int ip, unsigned short port, std::chrono::milliseconds patience) {
    const Descriptor socket = net::detail::openSocket(SOCK_STREAM | SOCK_NONBLOCK);
    const sockaddr_in address = net::detail::makeAddress(ip, port);
    if (!socket.isOpen())
        return errno;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    pollfd connected{socket.get(), POLLOUT, 0};
    if (::poll(&connected, 1, static_cast<int>(patience.count())) != 1)
        return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

/// Nothing for text that is no address, as the library takes it; empty text is 0.
std::optional<unsigned int> addressOf(const std::string& text) {
    const unsigned int address = text.empty() ? 0 : net::transAddr(text.c_str());
    return address == INADDR_NONE ? std::nullopt : std::optional(address);
}

} // namespace

Profile readProfile(std::chrono::milliseconds patience) {
    Profile profile;
    const char* directory = std::getenv("INIPROFILE_DIR");
    profile.path =
        (directory != nullptr && *directory != '\0' ? std::string(directory) + "/" : "") + kProfile;
    profile.error = readError(profile.path);
    if (profile.error == 0) {
        std::ostringstream contents;
        contents << std::ifstream(profile.path).rdbuf();
        profile.entries = profileEntries(contents.str());
    }
    profile.localText = GetProfileInfo("Local", "IP", "0.0.0.0", 16, kProfile);
    profile.netName = GetProfileInfo("Local", "NetName", "", 64, kProfile);
    profile.radarText = GetProfileInfo("Radar", "IP", "", 16, kProfile);
    profile.tcpService = GetProfileInfo_bool("Radar", "TCPService", "", kProfile);
    profile.multicastLoop = GetProfileInfo_bool("Local", "MulticastLoop", "false", kProfile);

    const auto table = net::localNetworkInterfaces();
    profile.localIp = addressOf(profile.localText).value_or(0);
    if (profile.localIp == 0 && !profile.netName.empty()) {
        const auto named = std::ranges::find_if(table, [&](const auto& entry) {
            return entry.second.name.find(profile.netName) != std::string::npos;
        });
        if (named != table.end())
            profile.localIp = named->first;
    }
    profile.localIsOurs = table.contains(profile.localIp);
    profile.radarIp = addressOf(profile.radarText).value_or(0);
    if (profile.radarIp != 0)
        profile.radarError = connectError(profile.radarIp, wire::kDiscovery.port, patience);
    return profile;
}

Igmp readIgmp() {
    Igmp igmp;
    std::ifstream table("/proc/net/igmp");
    std::string line;
    std::getline(table, line); // heading
    while (std::getline(table, line)) {
        if (line.starts_with("\t")) {
            ++igmp.memberships;
            continue;
        }
        std::ranges::replace(line, ':', ' '); // which follows on a long name at once
        std::istringstream words(line);
        std::string index, name, count, version;
        if (words >> index >> name >> count >> version)
            igmp.versions[name] = version;
    }
    std::ifstream limit("/proc/sys/net/ipv4/igmp_max_memberships");
    if (!(limit >> igmp.limit))
        igmp.limit = -1;
    return igmp;
}

unsigned long reversePathDrops() {
    std::ifstream file("/proc/net/netstat"); // pairs of lines, names and values
    std::string names;
    std::string values;
    while (std::getline(file, names) && std::getline(file, values)) {
        std::istringstream nameWords(names);
        std::istringstream valueWords(values);
        std::string name;
        std::string value;
        while (nameWords >> name && valueWords >> value)
            if (name == "IPReversePathFilter")
                return std::strtoul(value.c_str(), nullptr, 10);
    }
    return 0;
}

namespace {

void judgeProfile(const Observation& seen, Report& report) {
    const Profile& profile = seen.profile;
    const std::string path = profile.path;
    if (profile.error == ENOENT) {
        report.check("profile.ini", path + ": none, so the library searches by itself");
        return;
    }
    if (profile.error != 0)
        return report.find(
            Id::ProfileUnreadable, Severity::Warning,
            path + " cannot be read, so the library takes its defaults",
            profile.error == EACCES ? "let every user of the radar programs read it: chmod a+r " + path
                                    : "put a file in its place",
            profile.error == ESPIPE ? "it is a FIFO" : std::generic_category().message(profile.error));
    report.check("profile.ini", path + ": [Local] IP " + profile.localText + ", NetName '" + profile.netName +
                                    "'; [Radar] IP '" + profile.radarText + "'");
    const std::string measured = "[Local] IP = " + profile.localText + ", NetName = " + profile.netName;
    if (!addressOf(profile.localText))
        report.find(Id::ProfileAddress, Severity::Warning,
                    path + " has an [Local] IP that is no IPv4 address, so the library searches",
                    "correct it, or remove it", measured);
    if (profile.localIp != 0 && !profile.localIsOurs)
        report.find(Id::ProfileAddress, Severity::Fault,
                    path + " names a local address that this machine does not have",
                    "set [Local] IP to one that it has, or remove it to search", measured);
    const bool isThere = std::ranges::any_of(seen.interfaces, [&](const Interface& interface) {
        return interface.name.find(profile.netName) != std::string::npos;
    });
    if (profile.localIp == 0 && !profile.netName.empty())
        report.find(Id::ProfileInterface, Severity::Warning,
                    path + " names an interface that " +
                        (isThere ? "has no IPv4 address" : "this machine does not have") +
                        ", so the library searches",
                    "set [Local] NetName to one that has an address, or remove it", measured);

    // Where the library listens, and where the radars are; unless it was not looked at where it listens.
    const Interface* heardOn = nullptr;
    bool heardThere = false;
    for (const auto& [host, heard] : seen.listening.hosts) {
        heardOn = seen.interface(host.interface);
        heardThere =
            heardThere || (heardOn != nullptr &&
                           std::ranges::count(heardOn->addresses, profile.localIp, &LocalAddress::ip) != 0);
    }
    if (heardOn != nullptr && !heardThere && profile.localIsOurs &&
        (seen.only.empty() || seen.isOwn(profile.localIp)))
        report.find(Id::WrongInterface, Severity::Fault,
                    path + " sets the local address to " + text(profile.localIp) +
                        ", and the radars are on another interface",
                    "set [Local] IP to " + text(heardOn->addresses.front().ip) + ", or remove it to search",
                    "radars heard through " + heardOn->name + ", none at " + text(profile.localIp));
}

void judgeFixedRadar(const Observation& seen, Report& report) {
    const Profile& profile = seen.profile;
    if (profile.radarText.empty() || profile.error != 0)
        return;
    const std::string port = " TCP port " + std::to_string(wire::kDiscovery.port);
    const std::string measured =
        "[Radar] IP = " + profile.radarText + "," + port + ": " +
        (profile.radarIp == 0      ? "no IPv4 address"
         : profile.radarError == 0 ? "connected"
                                   : std::generic_category().message(profile.radarError));
    if (profile.radarIp == 0)
        report.find(Id::FixedRadar, Severity::Warning,
                    "profile.ini has a [Radar] IP that is no IPv4 address, so it counts for nothing",
                    "correct it, or remove it", measured);
    else if (profile.radarError != 0)
        report.find(Id::FixedRadar, Severity::Fault,
                    "profile.ini fixes the radar to " + text(profile.radarIp) + ", which does not answer" +
                        port,
                    "correct [Radar] IP, or remove it to find radars by multicast", measured);
    else if (!profile.tcpService)
        report.find(Id::FixedRadar, Severity::Warning,
                    "profile.ini fixes the radar, and without TCPService none of its entries is listed",
                    "set [Radar] TCPService = true", measured);
    else
        report.find(Id::FixedRadar, Severity::Note,
                    "profile.ini fixes the radar: it is reached over TCP, and multicast does not matter", "",
                    measured);
}

void judgeIgmp(const Observation& seen, Report& report) {
    bool refused = false;
    bool wire = !seen.listening.results.empty();
    int queries = 0;
    for (const auto& [index, result] : seen.listening.results) {
        refused = refused || std::ranges::count(result.joinErrors, ENOBUFS) != 0;
        wire = wire && result.wire;
        queries += result.igmpQueries;
    }
    std::string versions;
    for (const Interface& interface : seen.interfaces)
        if (const auto version = seen.igmp.versions.find(interface.name);
            version != seen.igmp.versions.end()) {
            versions += interface.name + " " + version->second + ", ";
            if (version->second == "V1")
                report.find(Id::IgmpVersion, Severity::Note,
                            interface.name + " speaks IGMP version 1, so switches notice late what it leaves",
                            "sysctl " + sysctlOf(interface, "force_igmp_version=0") +
                                ", and a querier of version 2 or 3",
                            interface.name + ": " + version->second);
        }
    report.check("IGMP", versions + (wire ? std::to_string(queries) + " queries heard from a querier"
                                          : "queriers could not be listened for"));
    if (!wire && !seen.listening.results.empty())
        report.find(Id::WireUnread, Severity::Unchecked,
                    "could not check: needs root (CAP_NET_RAW) to hear IGMP queriers, and to tell what never "
                    "came from what the kernel dropped",
                    "sudo radarctl doctor", "packet socket refused");

    const std::string measured = "limit " + std::to_string(seen.igmp.limit) + " a socket, " +
                                 std::to_string(seen.igmp.memberships) + " memberships on this machine";
    const std::string remedy = "sysctl net.ipv4.igmp_max_memberships=20";
    report.check("memberships", measured);
    if (refused)
        report.find(Id::MembershipLimit, Severity::Fault,
                    "the system refuses to join the radars' groups: too many memberships", remedy, measured);
    else if (seen.igmp.limit >= 0 && seen.igmp.limit < kEndpoints)
        report.find(Id::MembershipLimit, Severity::Warning,
                    "a program that hears every endpoint of a radar on one socket may not join them all",
                    remedy, measured);
}

} // namespace

Report judgeMachine(const Observation& seen) {
    Report report;
    judgeProfile(seen, report);
    judgeFixedRadar(seen, report);
    judgeIgmp(seen, report);
    if (const int granted = seen.listening.grantedBuffer; granted > 0) {
        const std::string measured = std::to_string(granted / 1024) + " KiB granted of 256 KiB";
        report.check("receive buffer", measured);
        if (granted < kTooSmallBuffer)
            report.find(
                Id::ReceiveBuffer, Severity::Warning,
                "the system grants too small a receive buffer: answers of many hosts at once are lost",
                "sysctl net.core.rmem_max=262144", measured);
    }
    return report;
}

} // namespace doctor
