// Hosts that vanish, freeze, come back as somebody else, or claim ids all at once.

#include "stage.h"

#include <UdpSocket/hostnegotiator.h>

#include <csignal>

namespace soak {

namespace {

constexpr double kLeaves = 10; // 8 s in whole seconds, and the query that finds it
constexpr double kComes = 2.5; // a query and its answer

double secondsUntilListed(const Client& client, const std::string& name) {
    return secondsUntil([&] { return client.lists(name); }, 60s, name + " is listed");
}

double secondsUntilGone(const Client& client, const std::string& name) {
    return secondsUntil([&] { return !client.lists(name); }, 60s, name + " leaves");
}

Figures killed(Stage& stage) {
    const Client client(stage.display(), kDisplayAddress);
    const std::string name = stage.freshName();
    lab::Process host = stage.startHost(stage.host(), name, 21);
    secondsUntilListed(client, name);
    host.signal(SIGKILL);
    return {{"s until it leaves the table", secondsUntilGone(client, name), kLeaves}};
}

Figures frozen(Stage& stage) {
    const Client client(stage.display(), kDisplayAddress);
    const std::string name = stage.freshName();
    const lab::Process host = stage.startHost(stage.host(), name, 21);
    secondsUntilListed(client, name);
    const auto stopped = Clock::now();
    host.signal(SIGSTOP);
    const double gone = secondsUntilGone(client, name);
    std::this_thread::sleep_until(stopped + 20s);
    host.signal(SIGCONT);
    return {{"s until it leaves", gone, kLeaves},
            {"s until it is back", secondsUntilListed(client, name), kComes}};
}

Figures renamed(Stage& stage) {
    const Client client(stage.display(), kDisplayAddress);
    const std::string before = stage.freshName();
    const std::string after = stage.freshName();
    {
        const lab::Process host = stage.startHost(stage.host(), before, 21);
        secondsUntilListed(client, before);
    }
    const auto start = Clock::now();
    const lab::Process host = stage.startHost(stage.host(), after, 21);
    secondsUntilListed(client, after);
    const double listed = secondsSince(start);
    secondsUntilGone(client, before);
    return {{"s until the new name is listed", listed, 2 + kComes},
            {"s until the old one leaves", secondsSince(start), kLeaves}};
}

int idOf(lab::Process& host) {
    const std::string before = "as host id ";
    const auto line = host.lineWith(before, 30s);
    if (!line)
        throw Broken("a host does not serve");
    return std::stoi(line->substr(line->find(before) + before.size()));
}

Figures oneId(Stage& stage) {
    constexpr int kId = 33;
    const std::string radarctl = lab::programBeside("radarctl");
    const std::vector<std::string> first{radarctl, "host", "--name", "Twin-1", "--id", std::to_string(kId)};
    const std::vector<std::string> second{radarctl, "host", "--name", "Twin-2", "--id", std::to_string(kId)};
    lab::Process one = stage.host().start({.command = first});
    lab::Process other = stage.stranger().start({.command = second});
    const int holders = (idOf(one) == kId ? 1 : 0) + (idOf(other) == kId ? 1 : 0);
    lab::Process doctor = stage.display().start(
        {.command = {radarctl, "doctor", "--json", "--seconds", "3", "--interface", "eth0"}});
    if (!doctor.wait(60s))
        throw Broken("radarctl doctor does not end");
    const bool named = doctor.output().find("\"same-id\"") != std::string::npos;
    if (holders > 1 && !named)
        throw Broken("radarctl doctor does not name two holders of one id");
    return {{"hosts hold the id, and doctor says so", static_cast<double>(holders)}};
}

Figures crowd(Stage& stage) {
    constexpr int kFirstId = 16;
    for (const lab::Node* node : stage.crowd())
        stage.lan().restore(*node);
    std::vector<std::atomic<int>> ids(stage.crowd().size());
    std::vector<std::unique_ptr<HostNegotiator>> negotiators;
    std::unique_ptr<HostNegotiator> holderOfOne;
    {
        const lab::Inside inside = stage.host().enter();
        holderOfOne = std::make_unique<HostNegotiator>(nullptr, nullptr);
        holderOfOne->syncLogin(1); // objects to every claim of theirs
    }
    for (size_t i = 0; i < ids.size(); ++i) {
        const lab::Inside inside = stage.crowd()[i]->enter();
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
    for (const lab::Node* node : stage.crowd())
        stage.lan().cut(*node);
    return {{"s until all hold an id", seconds, 5},
            {"hold another than they claimed", static_cast<double>(others), 0}};
}

constexpr Row kRows[] = {
    {"host-killed", "Host killed", "SIGKILL", "it leaves the table within 10 s", killed},
    {"host-frozen", "Host frozen and woken", "SIGSTOP for 20 s, then SIGCONT",
     "it leaves within 10 s, and is back within 2.5 s", frozen},
    {"host-renamed", "Host restarted under another name", "killed, and started anew with the same id",
     "the new name comes within 4.5 s, the old one leaves within 10 s", renamed},
    {"host-one-id", "Two hosts claim one id at once", "two processes started together, both with id 33",
     "nothing is promised; radarctl doctor names it (`same-id`)", oneId},
    {"host-crowd", "48 hosts negotiate at once",
     "each claims another id of the plan, while the holder of id 1 objects to all",
     "each holds the id that it claimed, within 5 s", crowd, true},
};

} // namespace

std::span<const Row> hostRows() {
    return kRows;
}

} // namespace soak
