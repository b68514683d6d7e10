#include "event_text.h"

#include <RadarWatch/event_queue.h>
#include <RadarWatch/inbox.h>
#include <RadarWatch/sightings.h>

#include <UdpSocket/protocol/announcement.h>

#include <gmock/gmock.h>

#include <poll.h>

namespace {

using namespace std::chrono_literals;
using radar::Event;
using radar::detail::EventQueue;
using Kind = Event::Kind;

Event about(const std::string& name, Kind kind, unsigned changes = 0, int id = 16) {
    Event event;
    event.kind = kind;
    event.radar.name = name;
    event.radar.hostId = id;
    event.changes = changes;
    event.reason = kind == Kind::Left ? Event::Reason::Silent : Event::Reason::None;
    return event;
}

Event local(const char* before, const char* after) {
    radar::LocalAddress from;
    radar::LocalAddress to;
    from.address = *before != '\0' ? net::transAddr(before) : 0;
    to.address = *after != '\0' ? net::transAddr(after) : 0;
    return radar::detail::localEvent(from, to, {});
}

/// What becomes of these events when so many others follow that they are merged.
std::vector<std::string> merged(const std::vector<Event>& events) {
    EventQueue queue;
    for (const Event& event : events)
        queue.push(event);
    for (std::size_t i = 0; i < EventQueue::kKept; ++i)
        queue.push(about("later", Kind::Changed));
    std::vector<std::string> texts;
    while (queue.front().radar.name != "later")
        texts.push_back(text(queue.pop()));
    return texts;
}

TEST(EventQueue, OlderOnesOfOneSubjectAreMerged) {
    struct Case {
        std::vector<Event> events;
        std::vector<std::string> expected;
    };
    const Event appeared = about("R", Kind::Appeared, 0, 17);
    const Event left = about("R", Kind::Left);
    const Event moved = about("R", Kind::Changed, 1);
    const auto conflict = [](int id, const std::vector<std::string>& holders) {
        return radar::detail::conflictEvent(id, holders, {});
    };
    const Case cases[] = {
        {{appeared}, {"R appeared, 17 at 0.0.0.0"}},
        {{appeared, moved}, {"R appeared, 16 at 0.0.0.0, merged 1"}},
        {{moved, about("R", Kind::Changed, 2), about("R", Kind::Changed, 2)},
         {"R changed, 16 at 0.0.0.0, bits 3, merged 2"}},
        {{moved, left}, {"R left, Silent, merged 1"}},
        {{appeared, left}, {}},
        {{left, appeared}, {"R changed, 17 at 0.0.0.0, bits 1, merged 1"}},
        {{about("R", Kind::Changed, 2), left, appeared}, {"R changed, 17 at 0.0.0.0, bits 3, merged 2"}},
        {{appeared, about("S", Kind::Appeared), moved},
         {"S appeared, 16 at 0.0.0.0", "R appeared, 16 at 0.0.0.0, merged 1"}},
        {{conflict(16, {"R", "S"}), conflict(17, {"T", "U"}), conflict(16, {"S"})},
         {"17 shared: T U", "16 ended: S, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "10.1.0.2")}, {"local 10.1.0.2 (), merged 1"}},
        {{local("10.1.0.1", "10.1.0.2"), local("10.1.0.2", "")}, {"lost 10.1.0.1, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "")}, {}},
    };
    for (const Case& one : cases)
        EXPECT_EQ(merged(one.events), one.expected);
}

TEST(Inbox, ReaderThatSleepsAMinuteMissesIntermediateStatesOnly) {
    constexpr int radars = 48;  // each takes another host id every second
    constexpr int passing = 20; // further ones that come every second, and are silent from then on
    radar::detail::Sightings sightings;
    const radar::detail::State& present = sightings.state();
    radar::detail::Inbox inbox;
    inbox.catchUp(present, {});
    std::vector<std::string> happened;
    const auto put = [&](const std::vector<Event>& events) {
        inbox.put(events);
        for (const Event& event : events)
            happened.push_back(text(event));
    };
    radar::detail::TimePoint now(1h);
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
    const auto isReadable = [&] {
        pollfd ready{inbox.descriptor(), POLLIN, 0};
        return ::poll(&ready, 1, 0) == 1;
    };
    ASSERT_GT(happened.size(), 4 * EventQueue::kKept);

    radar::detail::State told;
    std::vector<std::string> taken;
    std::size_t stoodFor = 0;
    while (isReadable()) {
        const auto event = inbox.take();
        ASSERT_TRUE(event);
        told.apply(*event);
        stoodFor += 1 + event->merged;
        taken.push_back(text(*event));
        ASSERT_EQ(inbox.radars(present, now).size(), told.radars.size());
    }
    EXPECT_FALSE(inbox.take());
    // of the older ones, one for each radar, host id and local address
    EXPECT_LE(taken.size(), EventQueue::kKept + radars + 8 * passing + 49 + 1);
    EXPECT_LE(stoodFor, happened.size()) << "who came and went meanwhile is not told of";
    EXPECT_TRUE(std::equal(taken.end() - EventQueue::kKept, taken.end(), happened.end() - EventQueue::kKept));
    EXPECT_THAT(difference(told, present, now), testing::IsEmpty());
}

} // namespace
