#include "event_text.h"

#include <RadarWatch/inbox.h>
#include <RadarWatch/sightings.h>

#include <UdpSocket/protocol/announcement.h>

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using radar::Event;
using radar::detail::EventQueue;
using radar::detail::Inbox;
using radar::detail::Sightings;
using radar::detail::State;
using radar::detail::TimePoint;

TEST(Inbox, ReaderThatSleepsAMinuteMissesIntermediateStatesOnly) {
    constexpr int radars = 48;  // each takes another host id every second
    constexpr int passing = 20; // further ones that come every second, and are silent from then on
    Sightings sightings;
    Inbox inbox;
    inbox.catchUp(sightings.state(), {});
    std::vector<std::string> happened;
    const auto put = [&](const std::vector<Event>& events) {
        inbox.put(events);
        for (const Event& event : events)
            happened.push_back(text(event));
    };
    TimePoint now(1h);
    const auto hear = [&](const std::string& name, int id, const char* from) {
        const std::string bytes = protocol::composeAnnouncement(name, static_cast<std::uint8_t>(id), 1);
        put(sightings.heard(*protocol::readAnnouncement(bytes, {}), net::transAddr(from), now));
    };
    put(sightings.setLocal({net::transAddr("10.1.0.9"), radar::LocalAddress::Origin::Search, "eth0"}, now));
    for (int second = 0; second < 60; ++second, now += 1s) {
        put(sightings.look(now));
        for (int i = 0; i < radars; ++i)
            hear("Radar " + std::to_string(i), 16 + (i + second) % radars, "10.1.0.1");
        for (int i = 0; i < passing; ++i)
            hear("Passing " + std::to_string(second * passing + i), 1, "10.1.0.2");
    }
    ASSERT_GT(happened.size(), 4 * EventQueue::kKept);
    EXPECT_EQ(inbox.radars(sightings.state(), now).size(), sightings.state().radars.size())
        << "before the first event is taken";

    State told;
    std::vector<std::string> taken;
    std::size_t stoodFor = 0;
    while (const auto event = inbox.take()) {
        told.apply(*event);
        stoodFor += 1 + event->merged;
        taken.push_back(text(*event));
        ASSERT_EQ(inbox.radars(sightings.state(), now).size(), told.radars.size());
    }
    // of the older ones, one for each radar, host id and local address
    EXPECT_LE(taken.size(), EventQueue::kKept + radars + 8 * passing + 49 + 1);
    EXPECT_LE(stoodFor, happened.size()) << "who came and went meanwhile is not told of";
    EXPECT_TRUE(std::equal(taken.end() - EventQueue::kKept, taken.end(), happened.end() - EventQueue::kKept));
    EXPECT_THAT(difference(told, sightings.state(), now), testing::IsEmpty());
}

} // namespace
