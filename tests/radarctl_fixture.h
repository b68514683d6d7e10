/// @file
/// radarctl, run on the computers of a LAN.
#pragma once

#include "profile_directory.h"
#include "recorder.h"

#include <UdpSocket/hostserver.h>

#include <lab/lan.h>

#include <nlohmann/json.hpp>

using testing::MatchesRegex;
using testing::StartsWith;

inline std::vector<std::string> lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

class Radarctl : public testing::Test {
protected:
    /// A computer with two interfaces on the LAN, another one, and a display whose local address is
    /// configured; or another LAN and profile.
    explicit Radarctl(
        const std::vector<lab::NodePlan>& plans = {{"host1", {{"10.20.1.1/16"}, {"10.20.3.1/16"}}, true},
                                                   lab::radarHost(2),
                                                   lab::display(1)},
        const std::string& profile = "[Local]\nIP = 10.20.2.1\n")
        : m_profile(profile), m_lan(plans) {}
    using Words = std::vector<std::string>;
    struct Result {
        int status;
        std::string output;
        std::string errors;
    };

    static Words radarctl(Words arguments) {
        arguments.insert(arguments.begin(), RADARCTL);
        return arguments;
    }
    lab::Process start(const char* node, Words arguments) {
        return m_lan.node(node).start({.command = radarctl(std::move(arguments))});
    }
    Result runOn(const char* node, const Words& command) {
        m_profile.write("", "errors"); // it is appended to
        lab::Process process =
            m_lan.node(node).start({.command = command, .errorFile = m_profile.path() / "errors"});
        const int status = process.wait(40s).value_or(-1);
        return {status, process.output(), m_profile.read("errors")};
    }
    /// radarctl on the display.
    Result run(Words arguments) { return runOn("display", radarctl(std::move(arguments))); }

    /// A host of this program, which need not negotiate its id.
    std::unique_ptr<HostServer> serve(const char* node, const char* name, std::uint8_t id,
                                      std::uint32_t streams = 1) {
        return makeIn<HostServer>(m_lan.node(node), name, id, streams);
    }

    const ProfileDirectory m_profile;
    lab::Lan m_lan;
};
