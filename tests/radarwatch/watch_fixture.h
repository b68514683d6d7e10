/// @file
/// A display with Watches, and radar hosts, on the virtual LAN.
#pragma once

#include "../profile_directory.h"
#include "../recorder.h"
#include "../records.h"
#include "event_text.h"

#include <RadarWatch/radarwatch.h>

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/announcement.h>

#include <lab/lan.h>

class WatchOnLan : public testing::Test {
protected:
    using Watch = radar::Watch;

    explicit WatchOnLan(const std::string& profile = "[Local]\nIP = 10.20.2.1\n") : m_profile(profile) {
        net::detail::Timing timing;
        timing.search = {std::chrono::milliseconds(200), std::chrono::milliseconds(100),
                         std::chrono::milliseconds(500), std::chrono::milliseconds(200)};
        timing.clientTick = std::chrono::milliseconds(20);
        timing.radarLook = std::chrono::milliseconds(100);
        net::detail::setTiming(timing);
    }
    ~WatchOnLan() override { net::detail::setTiming({}); }

    template <class... Arguments>
    std::unique_ptr<Watch> watch(Arguments&&... arguments) const {
        return makeIn<Watch>(m_display, std::forward<Arguments>(arguments)...);
    }
    std::unique_ptr<HostServer> serve(const lab::Node& node, const char* name, int id,
                                      unsigned streams = 2) const {
        return makeIn<HostServer>(node, name, static_cast<std::uint8_t>(id), streams);
    }
    /// The text of the next event; "nothing" when none came.
    static std::string next(Watch& watch, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        const auto event = watch.next(timeout);
        return event ? text(*event) : "nothing";
    }

    const ProfileDirectory m_profile;
    lab::Lan m_lan{{lab::display(2), lab::radarHost(1), lab::radarHost(2)}};
    const lab::Node& m_display = m_lan.node("display");
    const lab::Node& m_host1 = m_lan.node("host1");
    const lab::Node& m_host2 = m_lan.node("host2");
};
