// A wall clock that jumps while a display runs.

#include "testbed.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace soak {

namespace {

constexpr const char* kOffset = "/run/soak.clock"; // seconds that shifted_clock.cpp adds
constexpr int kHour = 3600;

void shiftClock(std::int64_t seconds) {
    std::ofstream(kOffset, std::ios::in | std::ios::out | std::ios::binary)
        .write(reinterpret_cast<const char*>(&seconds), sizeof seconds);
}

Figures jump(Testbed& testbed, int seconds) {
    const std::int64_t none = 0;
    std::ofstream(kOffset, std::ios::binary).write(reinterpret_cast<const char*>(&none), sizeof none);
    Watch watch(testbed.display(), testbed.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"),
                {"LD_PRELOAD=" + lab::programBeside("../lib/libshifted_clock.so"),
                 std::string("SHIFTED_CLOCK=") + kOffset});
    const std::string name = testbed.newName();
    lab::Process host = testbed.startHost(testbed.host(), name, 21);
    secondsUntil([&] { return watch.lists(kPermanentRadar) && watch.lists(name); }, 30s,
                 "both radars are listed");
    watch.departures();

    host.signal(SIGKILL); // its entry, made before the jump, has to expire after it
    const auto killed = Clock::now();
    shiftClock(seconds);
    std::this_thread::sleep_for(3s); // three queries
    const int departed = watch.departures();
    secondsUntil([&] { return !watch.lists(name); }, 60s, "the dead radar leaves");
    const double gone = secondsSince(killed);
    if (std::abs(watch.lastEvent() - std::time(nullptr) - seconds) > 60)
        throw RequirementFailed("the display's clock has not jumped");
    return {{"radars lost by the jump",
             static_cast<double>(departed + (watch.lists(kPermanentRadar) ? 0 : 1)), 0},
            {"s until a dead one leaves", gone, 10}};
}

constexpr Fault kFaults[] = {
    {"clock-forward", "Wall clock jumps forward", "an hour, within the display's process",
     "no radar leaves by it; one killed just before leaves within 10 s",
     [](Testbed& testbed) { return jump(testbed, kHour); }},
    {"clock-back", "Wall clock jumps back", "an hour, within the display's process",
     "no radar leaves by it; one killed just before leaves within 10 s",
     [](Testbed& testbed) { return jump(testbed, -kHour); }},
};

} // namespace

std::span<const Fault> clockFaults() {
    return kFaults;
}

} // namespace soak
