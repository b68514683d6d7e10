#include "command.h"
#include "loop.h"
#include "privileges.h"
#include "simulator.h"
#include "table.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

namespace {

struct Options {
    std::string name;
    int id = 0; // 0: any from 16 to 63
    unsigned int streams = 1;
    bool simulate = false;
    double rate = 24; // revolutions a minute
};

constexpr std::chrono::milliseconds kForEver(-1);
constexpr std::chrono::milliseconds kSimulationStep(10);

int anyId() {
    std::random_device source;
    return std::uniform_int_distribution<int>(16, 63)(source);
}

int serve(const Options& options, Output& output) {
    Loop loop;
    if (!canReachGroups())
        throw Failure(kNotAllowed,
                      "no route leads to the radars' groups, so nothing can be sent; as root: ip route "
                      "add 236.6.0.0/16 dev INTERFACE");
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
    negotiator.asyncLogin(static_cast<std::uint8_t>(options.id != 0 ? options.id : anyId()));

    std::unique_ptr<HostServer> server;
    std::unique_ptr<Simulator> simulator;
    for (;;) {
        const Loop::Event event = loop.wait(simulator ? kSimulationStep : kForEver);
        if (event == Loop::Event::Stop)
            return kFound;
        if (resetAsked.exchange(false))
            output.write("reset asked for\n");
        if (const int held = id.exchange(0); held != 0) {
            server.reset();
            server = std::make_unique<HostServer>(options.name.c_str(), static_cast<std::uint8_t>(held),
                                                  options.streams);
            if (options.simulate)
                simulator = std::make_unique<Simulator>(held, options.streams, options.rate);
            output.write("serving " + printable(options.name) + " as host id " + std::to_string(held) + ", " +
                         std::to_string(options.streams) +
                         (options.streams == 1 ? " stream\n" : " streams\n"));
        }
        if (simulator)
            simulator->send();
    }
}

std::string checkName(const std::string& name) {
    return name.empty() || name.size() > 16 ? "'" + printable(name) + "' is no radar name: 1 to 16 bytes"
                                            : "";
}

std::string checkId(const std::string& text) {
    const char* words = "is no host id: 1, or 16 to 63";
    return checkWholeNumber(1, 1, words)(text).empty() ? "" : checkWholeNumber(16, 63, words)(text);
}

} // namespace

void addHost(CommandLine& line) {
    const auto options = std::make_shared<Options>();
    Syntax syntax = line.command("host", "Negotiate a host id and answer discovery until stopped",
                                 [options](Output& output) { return serve(*options, output); });
    syntax.required("--name", options->name, "NAME", "The radar's name, 1 to 16 bytes", checkName);
    syntax.option("--id", options->id, "ID",
                  "The host id to propose: 1, or 16 to 63 (default: any from 16 to 63)", checkId);
    syntax.option("--streams", options->streams, "N", "1 or 2 streams (default 1)",
                  checkWholeNumber(1, 2, "streams cannot be served: 1 or 2"));
    syntax.flag("--simulate", options->simulate,
                "Send a rotating image and moving ARPA targets on the streams' endpoints");
    syntax.option("--rate", options->rate, "RPM",
                  "The simulated antenna's revolutions a minute, up to 120 (default 24)",
                  checkNumber(1, 120, "is no rate: revolutions a minute, 1 to 120"));
}
