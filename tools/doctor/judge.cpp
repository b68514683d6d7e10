#include "observation.h"

#include <algorithm>
#include <iterator>

namespace doctor {

Report judge(const Observation& seen) {
    Report all;
    const auto add = [&all](Report part) {
        std::ranges::move(part.findings, std::back_inserter(all.findings));
        std::ranges::move(part.checks, std::back_inserter(all.checks));
    };
    add(judgeInterfaces(seen));
    add(judgeFirewall(seen));
    add(judgePorts(seen));
    add(judgeMachine(seen));
    add(judgeProfileKeys(seen));
    add(judgeHosts(seen));
    if (seen.image)
        add(judgeImage(*seen.image, seen.listening));
    if (std::ranges::none_of(all.findings, &Finding::isComplaint))
        add(judgeSilence(seen));
    std::ranges::stable_sort(all.findings, {},
                             [](const Finding& finding) { return std::pair(finding.severity, finding.id); });
    return all;
}

} // namespace doctor
