#include "event_text.h"

#include <RadarWatch/event_queue.h>
#include <RadarWatch/inbox.h>
#include <RadarWatch/state.h>

#include <gmock/gmock.h>

#include <poll.h>

namespace {

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
    constexpr int passing = 20; // further ones that come every second, and leave after eight
    radar::detail::State present;
    radar::detail::Inbox inbox;
    inbox.catchUp(present, {});
    std::vector<std::string> happened;
    const auto put = [&](const Event& event) {
        present.apply(event);
        inbox.put({event});
        happened.push_back(text(event));
    };
    put(local("", "10.1.0.9"));
    for (int second = 0; second < 60; ++second) {
        for (int i = 0; i < radars; ++i)
            put(about("Radar " + std::to_string(i), second == 0 ? Kind::Appeared : Kind::Changed,
                      second == 0 ? 0U : unsigned{Event::HostId}, 16 + (i + second) % radars));
        for (int i = 0; i < passing; ++i) {
            put(about("Passing " + std::to_string(second * passing + i), Kind::Appeared));
            if (second >= 8)
                put(about("Passing " + std::to_string((second - 8) * passing + i), Kind::Left));
        }
        put(radar::detail::conflictEvent(16 + second % 2, {"R", "S"}, {}));
    }
    const auto isReadable = [&] {
        pollfd ready{inbox.descriptor(), POLLIN, 0};
        return ::poll(&ready, 1, 0) == 1;
    };
    ASSERT_GT(happened.size(), 4 * EventQueue::kKept);
    EXPECT_EQ(inbox.radars(present, {}).size(), present.radars.size()) << "as it is, while nothing was taken";

    radar::detail::State told;
    std::vector<std::string> taken;
    std::size_t stoodFor = 0;
    while (isReadable()) {
        const auto event = inbox.take();
        ASSERT_TRUE(event);
        told.apply(*event);
        stoodFor += 1 + event->merged;
        taken.push_back(text(*event));
        ASSERT_EQ(inbox.radars(present, {}).size(), told.radars.size());
    }
    EXPECT_FALSE(inbox.take());
    // of the older ones, one for each radar, host id and local address
    EXPECT_LE(taken.size(), EventQueue::kKept + radars + 8 * passing + 2 + 1);
    EXPECT_LE(stoodFor, happened.size()) << "who came and went meanwhile is not told of";
    EXPECT_TRUE(std::equal(taken.end() - EventQueue::kKept, taken.end(), happened.end() - EventQueue::kKept));
    EXPECT_THAT(difference(told, present, {}), testing::IsEmpty());
}

} // namespace
