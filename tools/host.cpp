#include "command.h"
#include "loop.h"
#include "privileges.h"
#include "proposal.h"
#include "service_manager.h"
#include "simulator.h"
#include "table.h"

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

struct Options {
    std::string name; // empty: not given
    int id = 0;       // 0: any from 16 to 63
    unsigned int streams = 1;
    bool simulate = false;
    double rate = 24; // revolutions a minute
};

constexpr std::chrono::milliseconds kSimulationStep(10);
constexpr std::chrono::milliseconds kNetworkLook(1000); // how often, while there is none
constexpr std::size_t kMaxName = wire::kName.width;     // bytes

// Two sockets each to negotiate and to serve, four for a simulated picture, two for what they look up.
constexpr std::size_t kDescriptors = 10;
constexpr std::size_t kThreads = 3; // two that receive, and a login

std::string checkName(const std::string& name) {
    return name.empty() || name.size() > kMaxName
               ? "'" + printable(name) + "' is no radar name: 1 to 16 bytes"
               : "";
}

/// This computer's name as far as a radar's name goes, up to its first dot and in whole UTF-8 characters.
std::string ownName() {
    char text[HOST_NAME_MAX + 1] = "";
    if (::gethostname(text, sizeof text - 1) != 0)
        throw std::system_error(errno, std::generic_category(), "this computer's name");
    std::string name = std::string(text).substr(0, std::string_view(text).find('.'));
    if (name.empty())
        throw Failure(kUsage, "this computer has no name; --name gives the radar one");
    if (name.size() > kMaxName) {
        std::size_t end = kMaxName;
        while (end > 1 && (name[end] & 0xC0) == 0x80) // inside a character
            --end;
        name.resize(end);
    }
    return name;
}

std::string nameOf(const Options& options) {
    if (!options.name.empty())
        return options.name;
    const char* name = std::getenv("RADAR_NAME");
    if (name == nullptr || *name == '\0')
        return ownName();
    if (const std::string wrong = checkName(name); !wrong.empty())
        throw Failure(kUsage, "RADAR_NAME: " + wrong);
    return name;
}

/// The library tells of what it cannot have and goes on. A host that could never answer had better end.
/// @throws std::system_error when the system has no room for the host's threads and descriptors
void requireRoom() {
    std::vector<net::detail::Descriptor> descriptors;
    while (descriptors.size() < kDescriptors) {
        descriptors.emplace_back(::eventfd(0, EFD_CLOEXEC));
        if (!descriptors.back().isOpen())
            throw std::system_error(errno, std::generic_category(), "no room for a radar host's sockets");
    }
    std::mutex gate;
    std::vector<std::jthread> threads;
    const std::lock_guard closed(gate); // all of them at once
    try {
        while (threads.size() < kThreads)
            threads.emplace_back([&gate] { const std::lock_guard passed(gate); });
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "no room for a radar host's threads");
    }
}

bool hasAddress() {
    return std::ranges::any_of(net::localNetworkInterfaces(), [](const auto& interface) {
        return net::NtoHl(interface.first) >> 24 != 127; // loopback
    });
}

/// A computer that has just been switched on may come by its address and route later.
/// @return false when stopped meanwhile
bool waitForNetwork(Loop& loop, ServiceManager& manager) {
    for (bool said = false; !hasAddress() || !canReachGroups(); said = true) {
        if (!said) {
            const std::string text = "waiting for an address and a route to the radars' groups";
            manager.tell("STATUS=" + text);
            tell("radarctl: " + text + "; as root: ip route add 236.6.0.0/16 dev INTERFACE\n");
        }
        if (loop.wait(kNetworkLook) == Loop::Event::Stop)
            return false;
        manager.keepAlive();
    }
    return true;
}

int serve(const Options& options, Output& output) {
    Loop loop;
    ServiceManager manager;
    const std::string name = nameOf(options);
    requireRoom();
    if (!waitForNetwork(loop, manager))
        return kFound;
    manager.tell("STATUS=negotiating a host id");
    const std::uint8_t proposed = proposedId(options.id, loop);
    if (proposed == 0)
        return kFound;
    std::atomic<int> id = 0;
    std::atomic<bool> resetAsked = false;
    HostNegotiator negotiator(
        [&] {
            resetAsked = true;
            loop.wake();
        },
        [&](std::uint8_t held) {
            id = held;
            loop.wake();
        });
    negotiator.asyncLogin(proposed);

    std::unique_ptr<HostServer> server;
    std::unique_ptr<Simulator> simulator;
    for (;;) {
        const Loop::Event event = loop.wait(simulator ? kSimulationStep : manager.period());
        if (event == Loop::Event::Stop)
            return kFound;
        manager.keepAlive();
        if (resetAsked.exchange(false))
            output.write("reset asked for\n");
        if (const int held = id.exchange(0); held != 0) {
            server.reset();
            server =
                std::make_unique<HostServer>(name.c_str(), static_cast<std::uint8_t>(held), options.streams);
            if (options.simulate)
                simulator = std::make_unique<Simulator>(held, options.streams, options.rate);
            const std::string status = "serving " + printable(name) + " as host id " + std::to_string(held) +
                                       ", " + std::to_string(options.streams) +
                                       (options.streams == 1 ? " stream" : " streams");
            output.write(status + "\n");
            manager.tell("READY=1\nSTATUS=" + status);
        }
        if (simulator)
            simulator->send();
    }
}

} // namespace

void addHost(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("host", "Negotiate a host id and answer discovery until stopped",
                                 [options](Output& output) { return serve(*options, output); });
    syntax.option("--name", options->name, "NAME",
                  "The radar's name, 1 to 16 bytes (default: RADAR_NAME, or this computer's name)",
                  checkName);
    syntax.option("--id", options->id, "ID",
                  "The host id to propose: 1, or 16 to 63 (default: one that nobody announces)", checkHostId);
    syntax.option("--streams", options->streams, "N", "1 or 2 streams (default 1)",
                  checkWholeNumber(1, 2, "streams cannot be served: 1 or 2"));
    syntax.flag("--simulate", options->simulate,
                "Send a rotating image and moving ARPA targets on the streams' endpoints");
    syntax.option("--rate", options->rate, "RPM",
                  "The simulated antenna's revolutions a minute, up to 120 (default 24)",
                  checkNumber(1, 120, "is no rate: revolutions a minute, 1 to 120"));
    syntax.need("--rate", "--simulate");
}
