#include "testbed.h"

#include <UdpSocket/base/command.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace soak {

namespace {

const std::string kErrors = "/run/soak.errors"; // private, as /run is
constexpr int kAdditionalHosts = 48;
constexpr int kFirstAdditionalHost = 3;

std::vector<lab::NodePlan> plans(bool manyHosts) {
    lab::NodePlan display = lab::display(2);
    display.defaultRoute = true; // receivers without a local address need a route
    std::vector<lab::NodePlan> all{display,
                                   lab::radarHost(1),
                                   lab::radarHost(2),
                                   {"stranger", {{"10.20.1.250/16", lab::Leads::ToLan}}, true}};
    for (const int number : {2, 3, 4}) {
        display.name = "display" + std::to_string(number);
        display.interfaces[0].address = "10.20.2." + std::to_string(number) + "/16";
        all.push_back(display);
    }
    for (int i = 0; manyHosts && i < kAdditionalHosts; ++i)
        all.push_back(lab::radarHost(kFirstAdditionalHost + i));
    return all;
}

} // namespace

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::vector<double> secondsUntil(const std::vector<std::function<bool()>>& conditions,
                                 std::chrono::seconds patience, const std::string& what) {
    const auto start = Clock::now();
    std::vector<double> seconds(conditions.size(), -1);
    while (std::ranges::any_of(seconds, [](double value) { return value < 0; })) {
        if (Clock::now() > start + patience) {
            std::string missing; // of several
            for (size_t i = 0; i < conditions.size() && conditions.size() > 1; ++i)
                if (seconds[i] < 0)
                    missing += (missing.empty() ? ", number " : ", ") + std::to_string(i + 1);
            throw RequirementFailed(what + ": not within " + std::to_string(patience.count()) + " s" +
                                    missing);
        }
        for (size_t i = 0; i < conditions.size(); ++i)
            if (seconds[i] < 0 && conditions[i]())
                seconds[i] = secondsSince(start);
        std::this_thread::sleep_for(10ms);
    }
    return seconds;
}

double secondsUntil(const std::function<bool()>& condition, std::chrono::seconds patience,
                    const std::string& what) {
    return secondsUntil(std::vector{condition}, patience, what).front();
}

void runInLan(const std::string& command) {
    if (!net::detail::runCommand(command, true))
        throw RequirementFailed("it fails: " + command);
}

Resources resourcesOf(pid_t process) {
    const std::filesystem::path directory = "/proc/" + std::to_string(process);
    Resources found{};
    std::ifstream status(directory / "status");
    for (std::string key; status >> key; status.ignore(std::numeric_limits<std::streamsize>::max(), '\n'))
        if (key == "VmRSS:")
            status >> found.memory;
        else if (key == "Threads:")
            status >> found.threads;
    const std::filesystem::directory_iterator descriptors(directory / "fd");
    found.descriptors = std::distance(begin(descriptors), end(descriptors));
    return found;
}

// --------------------------------------------------------------------------------------------------- watch

Watch::Watch(const lab::Node& node, const std::string& profile, const std::vector<std::string>& environment)
    : m_process([&] {
          std::vector<std::string> command{"env"};
          command.insert(command.end(), environment.begin(), environment.end());
          command.push_back(lab::programBeside("radarctl"));
          if (!profile.empty())
              command.insert(command.end(), {"--profile", profile});
          command.insert(command.end(), {"watch", "--json"});
          return node.start({.command = command, .errorFile = kErrors});
      }()) {}

void Watch::read() {
    while (const auto line = m_process.nextLine(0ms)) {
        const auto event = nlohmann::json::parse(*line); // throws where it is no JSON
        const std::string name = event["radar"]["name"];
        std::tm time{};
        ::strptime(event["time"].get<std::string>().c_str(), "%FT%T%z", &time);
        const long east = time.tm_gmtoff; // timegm forgets it
        m_lastEvent = ::timegm(&time) - east;
        if (event["event"] != "left") {
            m_listed.insert(name);
        } else {
            m_listed.erase(name);
            ++m_departures;
        }
    }
    if (const auto status = m_process.wait(0ms))
        throw RequirementFailed("radarctl watch has ended with status " + std::to_string(*status));
}

bool Watch::lists(const std::string& name) {
    read();
    return m_listed.contains(name);
}

int Watch::departures() {
    read();
    return std::exchange(m_departures, 0);
}

// ------------------------------------------------------------------------------------------------- objects

Client::Client(const lab::Node& node, const char* localIp) {
    const lab::Inside inside = node.enter();
    m_client = std::make_unique<MultiRadarClient>();
    m_client->setLocalIP(net::transAddr(localIp));
    m_asking = std::jthread([this](const std::stop_token& stop) {
        for (auto next = Clock::now(); !stop.stop_requested(); std::this_thread::sleep_for(10ms))
            if (Clock::now() >= next) {
                m_client->query();
                next += 1s;
            }
    });
}

Client::~Client() {
    m_asking = {};
}

GroupListener::GroupListener(const lab::Node& node, const char* localIp, const wire::Group& group) {
    const lab::Inside inside = node.enter();
    m_receiver = net::detail::makeReceiver(this, group, net::transAddr(localIp)); // with room for a full plan
}

GroupListener::~GroupListener() {
    m_receiver.reset();
}

void GroupListener::OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) {
    const std::string_view datagram(data, static_cast<size_t>(length));
    const auto announcement = protocol::readAnnouncement(datagram, {});
    const std::lock_guard lock(m_mutex);
    m_last[""] = Clock::now();
    if (announcement)
        m_last[announcement->name.c_str()] = m_last[""];
}

bool GroupListener::receivedSince(Clock::time_point moment, const std::string& name) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_last.find(name);
    return found != m_last.end() && found->second > moment;
}

PeriodicSender::PeriodicSender(const lab::Node& node, const wire::Group& group, std::string datagram,
                               std::chrono::milliseconds period) {
    const lab::Inside inside = node.enter();
    m_thread = std::jthread([=](const std::stop_token& stop) {
        const net::UdpSender sender(group.address, group.port, 0, 0);
        for (; !stop.stop_requested(); std::this_thread::sleep_for(period))
            sender.sendData(datagram.data(), static_cast<int>(datagram.size()));
    });
}

// --------------------------------------------------------------------------------------------------- testbed

Testbed::Testbed(bool full, bool manyHosts) : m_full(full), m_lan(plans(manyHosts)) {
    for (const auto& nodes : {this->manyHosts(), additionalDisplays()})
        for (const lab::Node* node : nodes)
            m_lan.cut(*node);
    permanentHost();
}

std::vector<const lab::Node*> Testbed::manyHosts() {
    std::vector<const lab::Node*> nodes;
    for (const lab::Node& node : m_lan.nodes())
        if (node.name().starts_with("host") && std::stoi(node.name().substr(4)) >= kFirstAdditionalHost)
            nodes.push_back(&node);
    return nodes;
}

std::vector<const lab::Node*> Testbed::additionalDisplays() {
    return {&m_lan.node("display2"), &m_lan.node("display3"), &m_lan.node("display4")};
}

lab::Process& Testbed::permanentHost() {
    if (!m_permanentHost)
        m_permanentHost.emplace(startHost(permanentHostNode(), kPermanentRadar, kPermanentRadarId, true));
    return *m_permanentHost;
}

Watch& Testbed::watch() {
    if (!m_watch) {
        m_watch.emplace(display());
        secondsUntil([&] { return m_watch->lists(kPermanentRadar); }, 60s,
                     "the permanent display lists the radar");
    }
    return *m_watch;
}

lab::Process Testbed::startHost(const lab::Node& node, const std::string& name, int id, bool simulate) {
    std::vector<std::string> command{
        lab::programBeside("radarctl"), "host", "--name", name, "--id", std::to_string(id)};
    if (simulate)
        command.push_back("--simulate");
    lab::Process process = node.start({.command = command, .errorFile = kErrors});
    if (!process.lineWith("serving", 30s))
        throw RequirementFailed("the host " + name + " does not serve");
    return process;
}

std::unique_ptr<HostServer> Testbed::serve(const lab::Node& node, const std::string& name, int id) {
    const lab::Inside inside = node.enter();
    return std::make_unique<HostServer>(name.c_str(), static_cast<std::uint8_t>(id), 1);
}

std::string Testbed::profile(const std::string& text) {
    std::string directory = "/run/profile" + std::to_string(++m_profiles);
    std::filesystem::create_directory(directory);
    std::ofstream(directory + "/profile.ini") << text;
    return directory;
}

} // namespace soak
