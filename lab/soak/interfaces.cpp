// Faults of the way to the radars: an address that comes late, an interface that is replaced, a link that is
// lost, an address that changes.

#include "stage.h"

#include <nlohmann/json.hpp>

namespace soak {

namespace {

constexpr wire::Group kGroups[] = {{"236.9.9.9", 7000}, {"236.9.9.10", 7001}}; // of no radar
constexpr auto kOutage = 3s;
constexpr double kHearsAgain = 10;

using Change = void (*)(Stage&, const lab::Node&);

std::string addressOf(const lab::Node& node) {
    const std::string& address = node.plan().interfaces[0].address;
    return address.substr(0, address.find('/'));
}

void takeAddress(Stage& stage, const lab::Node& node) {
    stage.lan().changeAddress(node, 0, "");
}
void giveAddress(Stage& stage, const lab::Node& node) {
    stage.lan().changeAddress(node, 0, node.plan().interfaces[0].address);
}
void giveOtherAddress(Stage& stage, const lab::Node& node) {
    std::string address = node.plan().interfaces[0].address;
    stage.lan().changeAddress(node, 0, address.replace(0, 6, "10.20.1")); // 10.20.2.3 becomes 10.20.12.3
}
void unplug(Stage& stage, const lab::Node& node) {
    stage.lan().unplug(node);
}
void plugIn(Stage& stage, const lab::Node& node) {
    stage.lan().plugIn(node);
}
void cut(Stage& stage, const lab::Node& node) {
    stage.lan().cut(node);
}
void restore(Stage& stage, const lab::Node& node) {
    stage.lan().restore(node);
}

/// The computers of displays, with the standing one, which has a part in the faults while a mix runs.
class Displays {
public:
    explicit Displays(Stage& stage) : m_stage(stage), m_nodes(stage.furtherDisplays()) {
        m_nodes.push_back(&stage.display());
        for (const lab::Node* node : stage.furtherDisplays())
            stage.lan().restore(*node);
    }
    ~Displays() {
        for (const lab::Node* node : m_stage.furtherDisplays())
            m_stage.lan().cut(*node);
    }
    Displays(const Displays&) = delete;
    Displays& operator=(const Displays&) = delete;

    const lab::Node& operator[](size_t number) const { return *m_nodes[number]; }
    void apply(Change change) const {
        for (const lab::Node* node : m_nodes)
            change(m_stage, *node);
    }

private:
    Stage& m_stage;
    std::vector<const lab::Node*> m_nodes;
};

// ----------------------------------------------------------------------------------------------- cold boot

Figures coldBoot(Stage& stage, Change withhold, Change give) {
    const Displays displays(stage);
    displays.apply(withhold);
    const Client searching(displays[0], "0.0.0.0");
    const Client told(displays[1], addressOf(displays[1]).c_str());
    std::this_thread::sleep_for(stage.full() ? 60s : 6s);
    displays.apply(give);
    const auto seconds =
        secondsUntil({[&] { return searching.lists(kStanding); }, [&] { return told.lists(kStanding); }}, 60s,
                     "the radar is listed");
    return {{"s until listed, address searched", seconds[0], 13},
            {"s, address configured", seconds[1], kHearsAgain}};
}

Figures addressLate(Stage& stage) {
    return coldBoot(stage, takeAddress, giveAddress);
}

Figures interfaceLate(Stage& stage) {
    return coldBoot(stage, unplug, plugIn);
}

// ------------------------------------------------------------------------------------------- on the display

/// The display of a picture, "radarctl listen", which tells each second what it has received.
class Picture {
public:
    explicit Picture(const lab::Node& node)
        : m_process(node.start({.command = {lab::programBeside("radarctl"), "listen", kStanding, "0",
                                            "--json", "--local", addressOf(node)},
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

/// Makes a fault of the displays' interfaces, and sees who hears again after it is mended, and when.
/// @param keepsAddress false: the displays have other addresses afterwards
Figures onDisplay(Stage& stage, Change harm, Change mend, bool keepsAddress = true) {
    const Displays displays(stage);
    const Client searching(displays[0], "0.0.0.0");
    const Client told(displays[1], addressOf(displays[1]).c_str());
    const lab::Node& third = displays[2];
    Picture picture(third);
    const Ears pinned(third, addressOf(third).c_str(), kGroups[0]);
    const Ears any(third, "0.0.0.0", kGroups[1]);
    const Ticker ticker(stage.host(), kGroups[0], "tick", 50ms);
    const Ticker otherTicker(stage.host(), kGroups[1], "tick", 50ms);
    const auto begin = Clock::now();
    secondsUntil({[&] { return searching.lists(kStanding); }, [&] { return told.lists(kStanding); },
                  [&] { return picture.runs(); }, [&] { return pinned.heardSince(begin); },
                  [&] { return any.heardSince(begin); }},
                 30s, "all hear before the fault");

    displays.apply(harm);
    std::this_thread::sleep_for(kOutage);
    displays.apply(mend);
    const auto mended = Clock::now();
    picture.runs();                             // what it received earlier
    const std::string name = stage.freshName(); // who lists it has heard something since
    const auto server = stage.serve(stage.host(), name);
    const auto seconds =
        secondsUntil({[&] { return searching.lists(name); }, [&] { return picture.runs(); },
                      [&] { return pinned.heardSince(mended); }, [&] { return any.heardSince(mended); },
                      [&] { return !keepsAddress || told.lists(name); }},
                     60s, "all hear again");
    Figures figures{{"s until discovery hears, address searched", seconds[0], kHearsAgain},
                    {"s, a picture", seconds[1], kHearsAgain + 1}, // told once a second
                    {"s, receiver of the address", seconds[2], kHearsAgain},
                    {"s, receiver of any address", seconds[3], kHearsAgain}};
    if (keepsAddress)
        figures.push_back({"s, discovery, address configured", seconds[4], kHearsAgain});
    else
        displays.apply(giveAddress);
    return figures;
}

Figures displayReplaced(Stage& stage) {
    return onDisplay(stage, unplug, plugIn);
}

Figures displayCarrier(Stage& stage) {
    return onDisplay(stage, cut, restore);
}

Figures displayAddress(Stage& stage) {
    return onDisplay(stage, takeAddress, giveOtherAddress, false);
}

// ---------------------------------------------------------------------------------------------- on the host

/// The same for the interface of the standing radar, which sends and receives through any address.
Figures onHost(Stage& stage, Change harm, Change mend) {
    Ears ears(stage.stranger(), "10.20.1.250");
    const Ticker asking(stage.stranger(), wire::kDiscovery, std::string(wire::text(wire::kQuery)), 200ms);
    const auto begin = Clock::now();
    secondsUntil([&] { return ears.heardSince(begin, kStanding); }, 10s, "the host answers");
    harm(stage, stage.standingHost());
    std::this_thread::sleep_for(kOutage);
    mend(stage, stage.standingHost());
    const auto mended = Clock::now();
    const double seconds =
        secondsUntil([&] { return ears.heardSince(mended, kStanding); }, 60s, "the host answers again");
    return {{"s until the host answers", seconds, kHearsAgain}};
}

Figures hostReplaced(Stage& stage) {
    return onHost(stage, unplug, plugIn);
}

Figures hostCarrier(Stage& stage) {
    return onHost(stage, cut, restore);
}

Figures hostAddress(Stage& stage) {
    Figures figures = onHost(stage, takeAddress, giveOtherAddress);
    giveAddress(stage, stage.standingHost());
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
