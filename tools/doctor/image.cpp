#include "observation.h"

namespace doctor {

Report judgeImage(const ImageSeen& image) {
    Report report;
    const std::string subject = "the image of \"" + image.radar + "\"";
    const std::string where = image.interface.empty() ? "not listened to" : "on " + image.interface;
    report.check(subject, where + ", " + std::to_string(image.datagrams) + " datagrams" +
                              (image.isSilent ? ", none of them lately" : ""));
    if (image.forgotten > 0)
        report.find(Id::SwitchForgets, Severity::Fault,
                    "a switch forgets that this computer listens to " + subject,
                    "give the network a querier (see no-querier), or switch snooping off in the switch",
                    "so often it stopped, and came again when its group was left and joined again: " +
                        std::to_string(image.forgotten));
    return report;
}

} // namespace doctor
