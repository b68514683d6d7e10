// Hosts that are killed, freeze, come back under another name, or claim ids all at once.

#include "testbed.h"

#include <UdpSocket/hostnegotiator.h>

#include <csignal>

namespace soak {

namespace {

constexpr double kRemovalLimit = 10;  // s: 8 counted in whole seconds, and the next query
constexpr double kListingLimit = 2.5; // s: a query and its answer

double secondsUntilListed(const Client& client, const std::string& name) {
    return secondsUntil([&] { return client.lists(name); }, 60s, name + " is listed");
}

double secondsUntilGone(const Client& client, const std::string& name) {
    return secondsUntil([&] { return !client.lists(name); }, 60s, name + " leaves");
}

Figures killed(Testbed& testbed) {
    const Client client(testbed.display(), kDisplayAddress);
    const std::string name = testbed.newName();
    lab::Process host = testbed.startHost(testbed.host(), name, 21);
    secondsUntilListed(client, name);
    host.signal(SIGKILL);
    return {{"s until it leaves the table", secondsUntilGone(client, name), kRemovalLimit}};
}

Figures frozen(Testbed& testbed) {
    const Client client(testbed.display(), kDisplayAddress);
    const std::string name = testbed.newName();
    const lab::Process host = testbed.startHost(testbed.host(), name, 21);
    secondsUntilListed(client, name);
    const auto stopped = Clock::now();
    host.signal(SIGSTOP);
    const double gone = secondsUntilGone(client, name);
    std::this_thread::sleep_until(stopped + 20s);
    host.signal(SIGCONT);
    return {{"s until it leaves", gone, kRemovalLimit},
            {"s until it is back", secondsUntilListed(client, name), kListingLimit}};
}

/// The display is stopped while one host dies and another one comes.
Figures displayFrozen(Testbed& testbed) {
    Watch watch(testbed.display(), testbed.profile(std::string("[Local]\nIP = ") + kDisplayAddress + "\n"));
    const std::string dies = testbed.newName();
    const std::string comes = testbed.newName();
    lab::Process first = testbed.startHost(testbed.host(), dies, 21);
    secondsUntil([&] { return watch.lists(kPermanentRadar) && watch.lists(dies); }, 30s, "both are listed");
    watch.departures();
    watch.process().signal(SIGSTOP);
    const auto stopped = Clock::now();
    first.signal(SIGKILL);
    const auto second = testbed.serve(testbed.host(), comes, 22); // asks nobody: no answer is kept for later
    std::this_thread::sleep_until(stopped + 20s);
    watch.process().signal(SIGCONT);
    const auto seconds =
        secondsUntil({[&] { return watch.lists(comes); }, [&] { return !watch.lists(dies); }}, 60s,
                     "the display lists what is there");
    return {{"s until it lists the new radar", seconds[0], kListingLimit},
            {"s until the dead one leaves", seconds[1], kRemovalLimit},
            {"living radars that left", static_cast<double>(watch.departures() - 1), 0}};
}

Figures renamed(Testbed& testbed) {
    const Client client(testbed.display(), kDisplayAddress);
    const std::string before = testbed.newName();
    const std::string after = testbed.newName();
    {
        const lab::Process host = testbed.startHost(testbed.host(), before, 21);
        secondsUntilListed(client, before);
    }
    const auto start = Clock::now();
    const lab::Process host = testbed.startHost(testbed.host(), after, 21);
    secondsUntilListed(client, after);
    const double listed = secondsSince(start);
    secondsUntilGone(client, before);
    return {{"s until the new name is listed", listed, 2 + kListingLimit},
            {"s until the old one leaves", secondsSince(start), kRemovalLimit}};
}

int idOf(lab::Process& host) {
    const std::string before = "as host id ";
    const auto line = host.lineWith(before, 30s);
    if (!line)
        throw RequirementFailed("a host does not serve");
    return std::stoi(line->substr(line->find(before) + before.size()));
}

bool doctorNamesTwoHolders(Testbed& testbed) {
    lab::Process doctor =
        testbed.display().start({.command = {lab::programBeside("radarctl"), "doctor", "--json", "--seconds",
                                             "3", "--interface", "eth0"}});
    if (!doctor.wait(60s))
        throw RequirementFailed("radarctl doctor does not end");
    return doctor.output().find("\"same-id\"") != std::string::npos;
}

Figures oneId(Testbed& testbed) {
    constexpr int kId = 33;
    const std::string radarctl = lab::programBeside("radarctl");
    const std::vector<std::string> first{radarctl, "host", "--name", "Twin-1", "--id", std::to_string(kId)};
    const std::vector<std::string> second{radarctl, "host", "--name", "Twin-2", "--id", std::to_string(kId)};
    lab::Process one = testbed.host().start({.command = first});
    lab::Process other = testbed.stranger().start({.command = second});
    const int holders = (idOf(one) == kId ? 1 : 0) + (idOf(other) == kId ? 1 : 0);
    if (holders > 1 && !doctorNamesTwoHolders(testbed))
        throw RequirementFailed("radarctl doctor does not name two holders of one id");
    return {{"hosts hold the id, and doctor says so", static_cast<double>(holders)}};
}

/// Hosts that draw their ids, all at the same moment.
Figures together(Testbed& testbed) {
    const std::string radarctl = lab::programBeside("radarctl");
    std::vector<const lab::Node*> nodes = testbed.additionalDisplays();
    for (const lab::Node* node : nodes)
        testbed.lan().restore(*node);
    std::vector<lab::Process> hosts;
    for (const lab::Node* node : nodes)
        hosts.push_back(node->start({.command = {radarctl, "host", "--name", testbed.newName()}}));
    const auto start = Clock::now();
    std::set<int> ids;
    for (lab::Process& host : hosts)
        ids.insert(idOf(host));
    const double seconds = secondsSince(start);
    const bool named = doctorNamesTwoHolders(testbed);
    hosts.clear();
    for (const lab::Node* node : nodes)
        testbed.lan().cut(*node);
    const auto sharing = static_cast<double>(nodes.size() - ids.size());
    if (sharing > 0 && !named)
        throw RequirementFailed("radarctl doctor does not name them");
    return {{"s until all serve", seconds, 8},
            {"share an id, and doctor says so", sharing, static_cast<double>(nodes.size() - 2)}};
}

Figures manyHosts(Testbed& testbed) {
    constexpr int kFirstId = 16;
    for (const lab::Node* node : testbed.manyHosts())
        testbed.lan().restore(*node);
    std::vector<std::atomic<int>> ids(testbed.manyHosts().size());
    std::vector<std::unique_ptr<HostNegotiator>> negotiators;
    std::unique_ptr<HostNegotiator> holderOfOne;
    {
        const lab::Inside inside = testbed.host().enter();
        holderOfOne = std::make_unique<HostNegotiator>(nullptr, nullptr);
        holderOfOne->syncLogin(1); // objects to all their claims
    }
    for (size_t i = 0; i < ids.size(); ++i) {
        const lab::Inside inside = testbed.manyHosts()[i]->enter();
        negotiators.push_back(
            std::make_unique<HostNegotiator>(nullptr, [&id = ids[i]](std::uint8_t held) { id = held; }));
    }
    for (size_t i = 0; i < ids.size(); ++i)
        negotiators[i]->asyncLogin(static_cast<std::uint8_t>(kFirstId + i));
    const double seconds = secondsUntil(
        [&] { return std::ranges::all_of(ids, [](const std::atomic<int>& id) { return id != 0; }); }, 60s,
        "all 48 hold an id");
    int others = 0;
    for (size_t i = 0; i < ids.size(); ++i)
        others += ids[i] == kFirstId + static_cast<int>(i) ? 0 : 1;
    negotiators.clear();
    for (const lab::Node* node : testbed.manyHosts())
        testbed.lan().cut(*node);
    return {{"s until all hold an id", seconds, 5},
            {"hold another than they claimed", static_cast<double>(others), 0}};
}

constexpr Fault kFaults[] = {
    {"host-killed", "Host killed", "SIGKILL", "it leaves the table within 10 s", killed},
    {"host-frozen", "Host frozen and woken", "SIGSTOP for 20 s, then SIGCONT",
     "it leaves within 10 s, and is back within 2.5 s", frozen},
    {"host-renamed", "Host restarted under another name", "killed, and started again with the same id",
     "the new name comes within 4.5 s, the old one leaves within 10 s", renamed},
    {"display-frozen", "Display frozen and woken",
     "SIGSTOP for 20 s, while one host is killed and another one comes",
     "the new one is listed within 2.5 s, the dead one leaves within 10 s, and no living one leaves",
     displayFrozen},
    {"hosts-together", "Hosts switched on together", "three at the same moment, each draws its id",
     "all serve within 8 s, and not all with one id; that each has its own is not promised, radarctl doctor "
     "names who has not",
     together},
    {"host-one-id", "Two hosts claim one id at once", "two processes started together, both with id 33",
     "nothing is promised; radarctl doctor names it (`same-id`)", oneId},
    {"host-crowd", "48 hosts negotiate at once",
     "each claims another id of the plan, while the holder of id 1 objects to all",
     "each holds the id that it claimed, within 5 s", manyHosts, Load::ManyHosts},
};

} // namespace

std::span<const Fault> hostFaults() {
    return kFaults;
}

} // namespace soak
