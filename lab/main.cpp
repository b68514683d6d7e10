/// lan: a virtual LAN with radar hosts, to try programs on.
#include <UdpSocket/base/descriptor.h>
#include <lab/lan.h>
#include <lab/private_network.h>

#include <CLI/CLI.hpp>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

using net::detail::Descriptor;

constexpr int kFailed = 1;
constexpr int kMisuse = 2;
constexpr int kSignalled = 128; // and the signal's number
constexpr std::size_t kFirstId = 16;
constexpr std::size_t kLastId = 63;
constexpr std::chrono::seconds kPatience(30); // a host holds its id after some seconds
const std::string kLogs = "/run/lan";         // private, as /run is

struct Options {
    int hosts = 3;
    size_t displayInterfaces = 2;
    int drop = 0;
    std::string radarctl;
    std::vector<std::string> command;
};

/// @return the options, or ends the program
Options parse(int argc, char** argv) {
    Options options;
    options.radarctl = lab::programBeside("radarctl");
    CLI::App app{"Starts radar hosts on a virtual LAN and runs a command on a display of that LAN."};
    app.add_option("--hosts", options.hosts, "Radar hosts: host1, host2 and so on")
        ->check(CLI::Range(0, 49))
        ->capture_default_str();
    app.add_option("--display-interfaces", options.displayInterfaces,
                   "Interfaces of the display; eth0 leads to the radars, the others nowhere")
        ->check(CLI::Range(1, 16))
        ->capture_default_str();
    app.add_option("--drop", options.drop, "Percentage of packets that get lost")->check(CLI::Range(0, 100));
    app.add_option("--radarctl", options.radarctl, "The program that the hosts run")->capture_default_str();
    app.add_option("command", options.command,
                   "Command to run on the display, after --; default: your shell");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? 0 : kMisuse);
    }
    if (options.hosts > 0 && ::access(options.radarctl.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "lan: no program %s: name it with --radarctl\n", options.radarctl.c_str());
        std::exit(kMisuse);
    }
    if (options.command.empty()) {
        const char* shell = std::getenv("SHELL");
        options.command = {shell != nullptr && *shell != '\0' ? shell : "/bin/sh"};
    }
    return options;
}

std::string radarName(const lab::Node& host) {
    return "radar-" + host.name().substr(4);
}

/// Of its own for each of the 49 hosts that the plan has room for.
std::size_t hostId(std::size_t index) {
    return kFirstId + index <= kLastId ? kFirstId + index : 1;
}

std::string logFile(const lab::Node& host) {
    return kLogs + "/" + host.name() + ".log";
}

void printPlan(const lab::Node& node) {
    std::fprintf(stderr, "lan: %-8s", node.name().c_str());
    for (size_t i = 0; i < node.plan().interfaces.size(); ++i) {
        const lab::InterfacePlan& interface = node.plan().interfaces[i];
        std::fprintf(stderr, " eth%zu %s%s", i, interface.address.c_str(),
                     interface.leads == lab::Leads::Nowhere ? " (leads nowhere)" : "");
    }
    if (node.plan().defaultRoute)
        std::fprintf(stderr, "  %s, output in %s", radarName(node).c_str(), logFile(node).c_str());
    std::fputc('\n', stderr);
}

struct Host {
    const lab::Node* node;
    lab::Process process;
};

bool serves(const lab::Node& host) {
    std::ifstream log(logFile(host));
    for (std::string line; std::getline(log, line);)
        if (line.starts_with("serving "))
            return true;
    return false;
}

/// Waits until every host has its id and answers; one that has ended, or takes too long, is named and left.
/// @return a signal that came meanwhile, or 0
int awaitHosts(std::deque<Host>& hosts, const Descriptor& signals) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::set<const lab::Node*> awaited;
    for (const Host& host : hosts)
        awaited.insert(host.node);
    if (!awaited.empty())
        std::fprintf(stderr, "lan: waiting until %zu %s\n", awaited.size(),
                     awaited.size() == 1 ? "host serves" : "hosts serve");
    while (!awaited.empty()) {
        for (Host& host : hosts) {
            const bool ended = host.process.wait(std::chrono::milliseconds(0)).has_value();
            const bool late = std::chrono::steady_clock::now() > deadline;
            if (serves(*host.node))
                awaited.erase(host.node);
            else if ((ended || late) && awaited.erase(host.node) == 1)
                std::fprintf(stderr, "lan: %s %s: see %s\n", host.node->name().c_str(),
                             ended ? "has ended" : "does not serve yet", logFile(*host.node).c_str());
        }
        pollfd entry{signals.get(), POLLIN, 0};
        signalfd_siginfo signal{};
        if (::poll(&entry, 1, 50) == 1 && ::read(signals.get(), &signal, sizeof signal) == sizeof signal)
            return static_cast<int>(signal.ssi_signo);
    }
    return 0;
}

/// Waits for the command. A signal from the terminal reaches the command, too, which decides what to do; a
/// signal that is sent to this program ends the command.
int waitFor(lab::Process& command, const Descriptor& signals) {
    for (;;) {
        pollfd entries[] = {{command.handle(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
        if (::poll(entries, 2, -1) == -1)
            continue;
        if (entries[0].revents != 0)
            return command.stop();
        signalfd_siginfo signal{};
        if (::read(signals.get(), &signal, sizeof signal) == sizeof signal && signal.ssi_code != SI_KERNEL) {
            command.stop();
            return kSignalled + static_cast<int>(signal.ssi_signo);
        }
    }
}

int runLab(const Options& options, const Descriptor& signals) {
    std::vector<lab::NodePlan> plans{lab::display(options.displayInterfaces)};
    for (int i = 1; i <= options.hosts; ++i)
        plans.push_back(lab::radarHost(i));
    lab::Lan lan(plans);
    lan.dropRate(options.drop); // also at 0: it makes the chain that rules can be added to by hand

    std::filesystem::create_directory(kLogs);
    std::deque<Host> hosts;
    for (const lab::Node& node : lan.nodes()) {
        printPlan(node);
        if (node.plan().defaultRoute)
            hosts.push_back(
                {&node, node.start({.command = {options.radarctl, "host", "--name", radarName(node), "--id",
                                                std::to_string(hostId(hosts.size()))},
                                    .outputFile = logFile(node)})});
    }
    if (const int signal = awaitHosts(hosts, signals); signal != 0)
        return kSignalled + signal;
    lab::Process command = lan.node("display").start({.command = options.command, .foreground = true});
    return waitFor(command, signals);
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    lab::enterPrivateNetwork();
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ending, number);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
    try {
        return runLab(options, Descriptor(::signalfd(-1, &ending, SFD_CLOEXEC)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lan: %s\n", error.what());
        return kFailed;
    }
}
