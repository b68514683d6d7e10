#include "event_text.h"

#include <RadarWatch/event_queue.h>
#include <RadarWatch/state.h>

#include <gmock/gmock.h>

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

Event shared(Kind kind, int id, std::vector<std::string> holders) {
    Event event;
    event.kind = kind;
    event.hostId = id;
    event.holders = std::move(holders);
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

TEST(EventQueue, KeepsTheLast1024AsTheyAre) {
    EventQueue queue;
    for (std::size_t i = 0; i < EventQueue::kKept; ++i)
        queue.push(about("R", Kind::Changed, 1U << i % 3));
    for (std::size_t i = 0; i < EventQueue::kKept; ++i)
        EXPECT_EQ(text(queue.pop()), text(about("R", Kind::Changed, 1U << i % 3)));
    EXPECT_TRUE(queue.empty());
}

TEST(EventQueue, OlderOnesOfOneSubjectAreMerged) {
    struct Case {
        std::vector<Event> events;
        std::vector<std::string> expected;
    };
    const Event appeared = about("R", Kind::Appeared, 0, 17);
    const Event left = about("R", Kind::Left);
    const std::string at = " at 0.0.0.0";
    const Case cases[] = {
        {{appeared}, {"R appeared, 17" + at}},
        {{appeared, about("R", Kind::Changed, 1)}, {"R appeared, 16" + at + ", merged 1"}},
        {{about("R", Kind::Changed, 1), about("R", Kind::Changed, 2), about("R", Kind::Changed, 2)},
         {"R changed, 16" + at + ", bits 3, merged 2"}},
        {{about("R", Kind::Changed, 1), left}, {"R left, Silent, merged 1"}},
        {{appeared, left}, {}},
        {{left, appeared}, {"R changed, 17" + at + ", bits 1, merged 1"}},
        {{left, appeared, left}, {"R left, Silent, merged 2"}},
        {{appeared, left, appeared}, {"R appeared, 17" + at}},
        {{appeared, about("S", Kind::Appeared), about("R", Kind::Changed, 1)},
         {"S appeared, 16" + at, "R appeared, 16" + at + ", merged 1"}},
        {{shared(Kind::Conflict, 16, {"R", "S"}), shared(Kind::Conflict, 17, {"T", "U"}),
          shared(Kind::ConflictEnded, 16, {"S"})},
         {"17 shared: T U", "16 ended: S, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "10.1.0.2")}, {"local 10.1.0.2 (), merged 1"}},
        {{local("10.1.0.1", "10.1.0.2"), local("10.1.0.2", "")}, {"lost 10.1.0.1, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "")}, {}},
    };
    for (const Case& one : cases)
        EXPECT_EQ(merged(one.events), one.expected);
}

TEST(EventQueue, StaysBoundedAndTellsItsReaderTheTruth) {
    radar::detail::State told;
    radar::detail::State present;
    EventQueue queue;
    const auto push = [&](const Event& event) {
        queue.push(event);
        present.apply(event);
    };
    for (int i = 0; i < 100'000; ++i) {
        const std::string name = "forged " + std::to_string(i % 7001);
        push(about(name, present.radars.contains(name) ? Kind::Left : Kind::Appeared));
        if (i % 1000 == 0 && !queue.empty())
            told.apply(queue.pop());
        ASSERT_LE(queue.all().size(), EventQueue::kKept + 7001);
    }
    while (!queue.empty())
        told.apply(queue.pop());
    EXPECT_THAT(difference(told, present, {}), testing::IsEmpty());
}

} // namespace
