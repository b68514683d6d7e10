// Faults of the way to the radars: an address that comes late, an interface that is replaced, a link that is
// lost, an address that changes.

#include "stage.h"

#include <nlohmann/json.hpp>

namespace soak {

namespace {

constexpr wire::Group kAnyGroup{"236.9.9.9", 7000}; // of no radar
constexpr auto kOutage = 3s;
constexpr double kHearsAgain = 10;

std::string configured(Stage& stage) {
    return stage.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n");
}

std::string addressWithLength() {
    return std::string(kDisplayAddress) + "/16";
}

// ----------------------------------------------------------------------------------------------- cold boot

Figures coldBoot(Stage& stage, void (*withhold)(Stage&), void (*give)(Stage&)) {
    withhold(stage);
    Watch searching(stage.display());
    Watch told(stage.display(), configured(stage));
    std::this_thread::sleep_for(stage.full() ? 60s : 6s);
    give(stage);
    const auto seconds =
        secondsUntil({[&] { return searching.lists(kStanding); }, [&] { return told.lists(kStanding); }}, 60s,
                     "the radar is listed");
    return {{"s until listed, address searched", seconds[0], 13},
            {"s, address configured", seconds[1], kHearsAgain}};
}

Figures addressLate(Stage& stage) {
    return coldBoot(
        stage, [](Stage& s) { s.lan().changeAddress(s.display(), 0, ""); },
        [](Stage& s) { s.lan().changeAddress(s.display(), 0, addressWithLength()); });
}

Figures interfaceLate(Stage& stage) {
    return coldBoot(
        stage, [](Stage& s) { s.lan().unplug(s.display()); }, [](Stage& s) { s.lan().plugIn(s.display()); });
}

// ------------------------------------------------------------------------------------------- on the display

/// The display of a picture, "radarctl listen", which tells each second what it has received.
class Picture {
public:
    explicit Picture(Stage& stage)
        : m_process(stage.display().start({.command = {lab::programBeside("radarctl"), "listen", kStanding,
                                                       "0", "--json", "--local", kDisplayAddress},
                                           .errorFile = "/run/soak.errors"})) {}
    /// Whether datagrams came in the seconds that it has told of since the last call.
    bool runs() {
        bool received = false;
        while (const auto line = m_process.nextLine(0ms))
            received = received || nlohmann::json::parse(*line)["datagrams"] > 0;
        return received;
    }

private:
    lab::Process m_process;
};

/// Makes a fault of the display's interface, and sees who hears again after it is mended, and when.
/// @param keepsAddress false: the display has another address afterwards
Figures onDisplay(Stage& stage, void (*harm)(Stage&), void (*mend)(Stage&), bool keepsAddress = true) {
    Watch& searching = stage.watch();
    std::optional<Watch> told;
    if (keepsAddress)
        told.emplace(stage.display(), configured(stage));
    Ears pinned(stage.display(), kDisplayAddress, kAnyGroup);
    Ears any(stage.display(), "0.0.0.0", kAnyGroup);
    Picture picture(stage);
    const Ticker ticker(stage.host(), kAnyGroup, "tick", 50ms);
    const auto begin = Clock::now();
    std::vector<std::function<bool()>> before{
        [&] { return searching.lists(kStanding); }, [&] { return pinned.heardSince(begin); },
        [&] { return any.heardSince(begin); }, [&] { return picture.runs(); }};
    if (told)
        before.push_back([&] { return told->lists(kStanding); });
    secondsUntil(before, 30s, "all hear before the fault");

    harm(stage);
    std::this_thread::sleep_for(kOutage);
    mend(stage);
    const auto mended = Clock::now();
    picture.runs();                             // what it received earlier
    const std::string name = stage.freshName(); // who lists it has heard something since
    const auto server = stage.serve(stage.host(), name);
    std::vector<std::function<bool()>> after{
        [&] { return searching.lists(name); }, [&] { return pinned.heardSince(mended); },
        [&] { return any.heardSince(mended); }, [&] { return picture.runs(); }};
    if (told)
        after.push_back([&] { return told->lists(name); });
    const auto seconds = secondsUntil(after, 60s, "all hear again");
    Figures figures{{"s until discovery hears, address searched", seconds[0], kHearsAgain},
                    {"s, receiver of the address", seconds[1], kHearsAgain},
                    {"s, receiver of any address", seconds[2], kHearsAgain},
                    {"s, a picture", seconds[3], kHearsAgain + 1}}; // told once a second
    if (told)
        figures.push_back({"s, discovery, address configured", seconds[4], kHearsAgain});
    return figures;
}

Figures displayReplaced(Stage& stage) {
    return onDisplay(
        stage, [](Stage& s) { s.lan().unplug(s.display()); }, [](Stage& s) { s.lan().plugIn(s.display()); });
}

Figures displayCarrier(Stage& stage) {
    return onDisplay(
        stage, [](Stage& s) { s.lan().cut(s.display()); }, [](Stage& s) { s.lan().restore(s.display()); });
}

Figures displayAddress(Stage& stage) {
    const Figures figures = onDisplay(
        stage, [](Stage& s) { s.lan().changeAddress(s.display(), 0, ""); },
        [](Stage& s) { s.lan().changeAddress(s.display(), 0, "10.20.2.77/16"); }, false);
    stage.lan().changeAddress(stage.display(), 0, addressWithLength());
    return figures;
}

// ---------------------------------------------------------------------------------------------- on the host

/// The same for the interface of the standing radar, which sends and receives through any address.
Figures onHost(Stage& stage, void (*harm)(Stage&), void (*mend)(Stage&)) {
    Ears ears(stage.stranger(), "10.20.1.250");
    const Ticker asking(stage.stranger(), wire::kDiscovery, std::string(wire::text(wire::kQuery)), 200ms);
    const auto begin = Clock::now();
    secondsUntil([&] { return ears.heardSince(begin, kStanding); }, 10s, "the host answers");
    harm(stage);
    std::this_thread::sleep_for(kOutage);
    mend(stage);
    const auto mended = Clock::now();
    return {{"s until the host answers",
             secondsUntil([&] { return ears.heardSince(mended, kStanding); }, 60s, "the host answers again"),
             kHearsAgain}};
}

Figures hostReplaced(Stage& stage) {
    return onHost(
        stage, [](Stage& s) { s.lan().unplug(s.standingHost()); },
        [](Stage& s) { s.lan().plugIn(s.standingHost()); });
}

Figures hostCarrier(Stage& stage) {
    return onHost(
        stage, [](Stage& s) { s.lan().cut(s.standingHost()); },
        [](Stage& s) { s.lan().restore(s.standingHost()); });
}

Figures hostAddress(Stage& stage) {
    const Figures figures = onHost(
        stage, [](Stage& s) { s.lan().changeAddress(s.standingHost(), 0, ""); },
        [](Stage& s) { s.lan().changeAddress(s.standingHost(), 0, "10.20.1.177/16"); });
    stage.lan().changeAddress(stage.standingHost(), 0, "10.20.1.1/16");
    return figures;
}

constexpr Row kRows[] = {
    {"cold-boot-address", "Cold boot, address late",
     "display started without an address; given 6 s later (60 s with --full)",
     "listed within a search and a query: 13 s searched, 10 s configured", addressLate},
    {"cold-boot-interface", "Cold boot, interface late",
     "display started without its interface; plugged in 6 s later (60 s with --full)",
     "listed within a search and a query: 13 s searched, 10 s configured", interfaceLate},
    {"display-replaced", "Display's interface replaced",
     "deleted, made again 3 s later with the same address", "all receive within 10 s", displayReplaced},
    {"display-carrier", "Display's carrier lost", "far end of the link down for 3 s",
     "all receive within 10 s", displayCarrier},
    {"display-address", "Display's address changed", "taken away, another one given 3 s later",
     "all receive within 10 s", displayAddress},
    {"host-replaced", "Host's interface replaced", "deleted, made again 3 s later with the same address",
     "the host answers within 10 s", hostReplaced},
    {"host-carrier", "Host's carrier lost", "far end of the link down for 3 s",
     "the host answers within 10 s", hostCarrier},
    {"host-address", "Host's address changed", "taken away, another one given 3 s later",
     "the host answers within 10 s", hostAddress},
};

} // namespace

std::span<const Row> interfaceRows() {
    return kRows;
}

} // namespace soak
