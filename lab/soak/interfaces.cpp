// Faults of interfaces and links: an address that comes late, an interface that is replaced, a link that goes
// down, an address that changes.

#include "testbed.h"

#include <UdpSocket/base/scope_exit.h>

#include <net/if.h>
#include <nlohmann/json.hpp>

namespace soak {

namespace {

constexpr wire::Group kGroups[] = {{"236.9.9.9", 7000}, {"236.9.9.10", 7001}}; // of no radar
constexpr auto kOutage = 3s;
constexpr double kRecoveryLimit = 10;
constexpr auto kQuerierIsTrusted = 5s;  // its second query has been answered, see switchForgets()
constexpr auto kReportIsRepeated = 11s; // by the system, within ten seconds of joining a group
constexpr double kForgottenLimit =
    6; // s: told silent after two, joined again a second later, reported once a second

using Change = std::function<void(Testbed&, const lab::Node&)>;

std::string addressOf(const lab::Node& node) {
    const std::string& address = node.plan().interfaces[0].address;
    return address.substr(0, address.find('/'));
}

void takeAddress(Testbed& testbed, const lab::Node& node) {
    testbed.lan().changeAddress(node, 0, "");
}
void giveAddress(Testbed& testbed, const lab::Node& node) {
    testbed.lan().changeAddress(node, 0, node.plan().interfaces[0].address);
}
void giveOtherAddress(Testbed& testbed, const lab::Node& node) {
    std::string address = node.plan().interfaces[0].address;
    testbed.lan().changeAddress(node, 0, address.replace(0, 6, "10.20.1")); // 10.20.2.3 becomes 10.20.12.3
}
void unplug(Testbed& testbed, const lab::Node& node) {
    testbed.lan().unplug(node);
}
void plugIn(Testbed& testbed, const lab::Node& node) {
    testbed.lan().plugIn(node);
}
void cut(Testbed& testbed, const lab::Node& node) {
    testbed.lan().cut(node);
}
void restore(Testbed& testbed, const lab::Node& node) {
    testbed.lan().restore(node);
}

/// The computers of displays, the permanent one among them, so that it is affected, too, while a mix runs.
class Displays {
public:
    explicit Displays(Testbed& testbed) : m_testbed(testbed), m_nodes(testbed.additionalDisplays()) {
        m_nodes.push_back(&testbed.display());
        for (const lab::Node* node : testbed.additionalDisplays())
            testbed.lan().restore(*node);
    }
    ~Displays() {
        for (const lab::Node* node : m_testbed.additionalDisplays())
            m_testbed.lan().cut(*node);
    }
    Displays(const Displays&) = delete;
    Displays& operator=(const Displays&) = delete;

    const lab::Node& operator[](size_t number) const { return *m_nodes[number]; }
    void apply(const Change& change) const {
        for (const lab::Node* node : m_nodes)
            change(m_testbed, *node);
    }

private:
    Testbed& m_testbed;
    std::vector<const lab::Node*> m_nodes;
};

// ----------------------------------------------------------------------------------------------- cold boot

Figures coldBoot(Testbed& testbed, const Change& withhold, const Change& give) {
    const Displays displays(testbed);
    displays.apply(withhold);
    const Client searching(displays[0], "0.0.0.0");
    const Client configured(displays[1], addressOf(displays[1]).c_str());
    std::this_thread::sleep_for(testbed.full() ? 60s : 6s);
    displays.apply(give);
    const auto seconds = secondsUntil(
        {[&] { return searching.lists(kPermanentRadar); }, [&] { return configured.lists(kPermanentRadar); }},
        60s, "the radar is listed");
    return {{"s until listed, address searched", seconds[0], 13},
            {"s, address configured", seconds[1], kRecoveryLimit}};
}

Figures addressLate(Testbed& testbed) {
    return coldBoot(testbed, takeAddress, giveAddress);
}

Figures interfaceLate(Testbed& testbed) {
    return coldBoot(testbed, unplug, plugIn);
}

// ------------------------------------------------------------------------------------------- on the display

/// The receiver of a picture, "radarctl listen", which reports each second what it has received.
class ListenProcess {
public:
    explicit ListenProcess(const lab::Node& node)
        : m_process(node.start({.command = {lab::programBeside("radarctl"), "listen", kPermanentRadar, "0",
                                            "--json", "--local", addressOf(node)},
                                .errorFile = "/run/soak.errors"})) {}
    /// Whether datagrams came in the seconds that it has reported since the last call.
    bool received() {
        return reported([](const nlohmann::json& second) { return second["datagrams"] > 0; });
    }
    /// Whether it has reported a second without.
    bool misses() {
        return reported([](const nlohmann::json& second) { return second["datagrams"] == 0; });
    }

private:
    template <class Matches>
    bool reported(Matches matches) {
        bool any = false;
        while (const auto line = m_process.nextLine(0ms)) {
            const auto document = nlohmann::json::parse(*line);
            any = any || (document.contains("datagrams") && matches(document));
        }
        return any;
    }

    lab::Process m_process;
};

/// Makes a fault of the displays' interfaces, repairs it, and measures when each receiver receives again.
/// @param keepsAddress false: the displays have other addresses afterwards
Figures withDisplayFault(Testbed& testbed, const Change& damage, const Change& repair,
                         bool keepsAddress = true) {
    const Displays displays(testbed);
    const Client searching(displays[0], "0.0.0.0");
    const Client configured(displays[1], addressOf(displays[1]).c_str());
    const lab::Node& third = displays[2];
    ListenProcess picture(third);
    const GroupListener pinned(third, addressOf(third).c_str(), kGroups[0]);
    const GroupListener any(third, "0.0.0.0", kGroups[1]);
    const PeriodicSender sender(testbed.host(), kGroups[0], "tick", 50ms);
    const PeriodicSender otherSender(testbed.host(), kGroups[1], "tick", 50ms);
    const auto begin = Clock::now();
    secondsUntil({[&] { return searching.lists(kPermanentRadar); },
                  [&] { return configured.lists(kPermanentRadar); }, [&] { return picture.received(); },
                  [&] { return pinned.receivedSince(begin); }, [&] { return any.receivedSince(begin); }},
                 30s, "all receive before the fault");

    displays.apply(damage);
    std::this_thread::sleep_for(kOutage);
    displays.apply(repair);
    const auto repaired = Clock::now();
    picture.received();                         // what it received earlier
    const std::string name = testbed.newName(); // a display that lists it has received something since
    const auto server = testbed.serve(testbed.host(), name);
    const auto seconds = secondsUntil(
        {[&] { return searching.lists(name); }, [&] { return picture.received(); },
         [&] { return pinned.receivedSince(repaired); }, [&] { return any.receivedSince(repaired); },
         [&] { return !keepsAddress || configured.lists(name); }},
        60s, "all receive again");
    Figures figures{{"s until discovery hears, address searched", seconds[0], kRecoveryLimit},
                    {"s, a picture", seconds[1], kRecoveryLimit + 1}, // reported once a second
                    {"s, receiver of the address", seconds[2], kRecoveryLimit},
                    {"s, receiver of any address", seconds[3], kRecoveryLimit}};
    if (keepsAddress)
        figures.push_back({"s, discovery, address configured", seconds[4], kRecoveryLimit});
    else
        displays.apply(giveAddress);
    return figures;
}

Figures displayReplaced(Testbed& testbed) {
    return withDisplayFault(testbed, unplug, plugIn);
}

Figures displaySameIndex(Testbed& testbed) {
    std::map<std::string, unsigned int> indexes; // by node
    const auto unplugKnown = [&](Testbed& lan, const lab::Node& node) {
        node.run([&] { indexes[node.name()] = ::if_nametoindex("eth0"); });
        unplug(lan, node);
    };
    return withDisplayFault(testbed, unplugKnown, [&](Testbed& lan, const lab::Node& node) {
        lan.lan().plugIn(node, 0, indexes.at(node.name()));
    });
}

Figures displayCarrier(Testbed& testbed) {
    return withDisplayFault(testbed, cut, restore);
}

Figures displayAddress(Testbed& testbed) {
    return withDisplayFault(testbed, takeAddress, giveOtherAddress, false);
}

/// A switch with IGMP snooping that forgets who listens to the picture.
Figures switchForgets(Testbed& testbed) {
    const Displays displays(testbed);
    // The bridge still floods the answers to its first query, so that a host that hears another's keeps
    // silent.
    runInLan("ip link set lan0 type bridge mcast_query_response_interval 100 "
             "mcast_startup_query_interval 200 mcast_startup_query_count 2"); // hundredths of a second
    runInLan("ip link set lan0 type bridge mcast_snooping 1 mcast_querier 1");
    const net::detail::ScopeExit trustAgain(
        [] { runInLan("ip link set lan0 type bridge mcast_snooping 0 mcast_querier 0"); });
    std::this_thread::sleep_for(kQuerierIsTrusted);
    ListenProcess picture(displays[0]);
    secondsUntil([&] { return picture.received(); }, 30s, "the picture is received");
    const Client client(displays[0], addressOf(displays[0]).c_str());
    secondsUntil([&] { return client.lists(kPermanentRadar); }, 30s, "the radar is listed");
    std::this_thread::sleep_for(kReportIsRepeated);
    picture.received(); // what came until then
    const NetAddress group = client.client().getAddress(kPermanentRadar, 0)->imageStream;
    runInLan("bridge mdb del dev lan0 port " + displays[0].name() + "-eth0 grp " + net::transAddr(group.ip));
    secondsUntil([&] { return picture.misses(); }, 10s, "the switch forgets");
    return {{"s until the picture is back",
             secondsUntil([&] { return picture.received(); }, 60s, "the picture is back"), kForgottenLimit}};
}

// ---------------------------------------------------------------------------------------------- on the host

/// The same for the interface of the permanent radar, which sends and receives through any address.
Figures withHostFault(Testbed& testbed, const Change& damage, const Change& repair) {
    GroupListener listener(testbed.stranger(), "10.20.1.250");
    const PeriodicSender asking(testbed.stranger(), wire::kDiscovery, std::string(wire::text(wire::kQuery)),
                                200ms);
    const auto begin = Clock::now();
    secondsUntil([&] { return listener.receivedSince(begin, kPermanentRadar); }, 10s, "the host answers");
    damage(testbed, testbed.permanentHostNode());
    std::this_thread::sleep_for(kOutage);
    repair(testbed, testbed.permanentHostNode());
    const auto repaired = Clock::now();
    const double seconds = secondsUntil([&] { return listener.receivedSince(repaired, kPermanentRadar); },
                                        60s, "the host answers again");
    return {{"s until the host answers", seconds, kRecoveryLimit}};
}

Figures hostReplaced(Testbed& testbed) {
    return withHostFault(testbed, unplug, plugIn);
}

Figures hostCarrier(Testbed& testbed) {
    return withHostFault(testbed, cut, restore);
}

Figures hostAddress(Testbed& testbed) {
    Figures figures = withHostFault(testbed, takeAddress, giveOtherAddress);
    giveAddress(testbed, testbed.permanentHostNode());
    return figures;
}

constexpr Fault kFaults[] = {
    {"cold-boot-address", "Cold boot, address late",
     "display started without an address; given 6 s later (60 s with --full)",
     "listed within a search and a query: 13 s searched, 10 s configured", addressLate},
    {"cold-boot-interface", "Cold boot, interface late",
     "display started without its interface; plugged in 6 s later (60 s with --full)",
     "listed within a search and a query: 13 s searched, 10 s configured", interfaceLate},
    {"display-replaced", "Display's interface replaced",
     "deleted, made again 3 s later with the same address", "all receive within 10 s", displayReplaced},
    {"display-same-index", "Display's interface back with its index",
     "deleted, made again 3 s later with the same address and the system's same number",
     "all receive within 10 s", displaySameIndex},
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
    {"switch-forgets", "Switch that forgets who listens",
     "IGMP snooping, and the display's membership in the picture's group deleted",
     "the picture is back within 6 s", switchForgets},
};

} // namespace

std::span<const Fault> interfaceFaults() {
    return kFaults;
}

} // namespace soak
