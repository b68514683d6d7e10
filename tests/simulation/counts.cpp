#include "counts.h"

#include <cstdio>

namespace simulation {

namespace {

struct Line {
    const char* what;
    std::uint64_t Counts::*count;
};

constexpr Line kLines[] = {
    {"logins", &Counts::logins},
    {"ids given up", &Counts::givenUp},
    {"of these to an objection of its own", &Counts::givenUpToSelf},
    {"ids kept, no thread for another", &Counts::kept},
    {"ids held twice", &Counts::heldTwice},
    {"of these id 1", &Counts::oneHeldTwice},
    {"names listed", &Counts::namesListed},
    {"removed", &Counts::namesRemoved},
    {"displaced", &Counts::namesDisplaced},
    {"refused", &Counts::namesRefused},
    {"searches led by beacons", &Counts::foundByBeacon},
    {"by answers", &Counts::foundByAnswer},
    {"confirmed", &Counts::confirmed},
    {"in vain", &Counts::inVain},
    {"looks while a radar was heard all the time", &Counts::heardAllTheTime},
    {"steps", &Counts::steps},
};

} // namespace

Counts operator+(const Counts& a, const Counts& b) {
    Counts sum;
    for (const Line& line : kLines)
        sum.*line.count = a.*line.count + b.*line.count;
    sum.digest = a.digest * 31 + b.digest;
    return sum;
}

std::string text(const Counts& counts) {
    std::string result;
    for (const Line& line : kLines)
        result += std::to_string(counts.*line.count) + " " + line.what + "; ";
    char digest[32];
    std::snprintf(digest, sizeof digest, "digest %016llx", static_cast<unsigned long long>(counts.digest));
    return result + digest;
}

} // namespace simulation
