#include "observation.h"

#include <UdpSocket/protocol/announcement.h>

namespace doctor {
namespace {

using namespace std::chrono_literals;

constexpr Seconds kEnough = 3s; // of listening: a radar sends many datagrams a second

/// What is to be said where nothing comes of it, or nothing more.
void judgeAbsence(const ImageSeen& image, const Listening& listening, const std::string& measured,
                  Report& report) {
    const std::string radar = "\"" + image.radar + "\"";
    std::set<std::string> names;
    for (const auto& [host, heard] : listening.hosts)
        names.insert(printable(host.name));
    const std::string wanted = printable(std::string(protocol::announcedName(image.radar)));
    if (image.followed >= kEnough)
        report.find(Id::NoImage, Severity::Warning,
                    radar + (image.hasLeft ? " has left" : " announces itself") +
                        ", and its image does not come" + (image.datagrams > 0 ? " any more" : ""),
                    image.hasLeft ? "look whether it is switched on and connected: radarctl list shows it"
                                  : "look whether it transmits, and whether the network passes the group on: "
                                    "radarctl listen shows it",
                    measured);
    else if (image.followed == 0s && !names.empty() && !names.contains(wanted))
        report.find(Id::NoImage, Severity::Warning, "no radar " + radar + " is there to be followed",
                    "there are: " + inWords(names), measured);
    else
        report.find(Id::NoImage, Severity::Unchecked,
                    "could not check: " + radar + " was not found in time to follow its image",
                    "--seconds 20, or --interface, which spares the search for the radars' interface",
                    measured);
}

} // namespace

Report judgeImage(const ImageSeen& image, const Listening& listening) {
    Report report;
    const std::string subject = "the image of \"" + image.radar + "\"";
    const std::string where = image.interface.empty() ? "not listened to" : "on " + image.interface;
    const std::string seen =
        where + ", " + counted(image.datagrams, "datagram") + (image.isSilent ? ", none of them lately" : "");
    report.check(subject, seen);
    if (image.forgotten > 0)
        report.find(Id::SwitchForgets, Severity::Fault,
                    "a switch forgets that this computer listens to " + subject,
                    "give the network a querier (see no-querier), or switch snooping off in the switch",
                    "so often it stopped, and came again when its group was left and joined again: " +
                        std::to_string(image.forgotten));
    if (image.datagrams == 0 || image.isSilent)
        judgeAbsence(image, listening, seen, report);
    return report;
}

} // namespace doctor
