#include "event_text.h"

#include <RadarWatch/event_queue.h>
#include <RadarWatch/inbox.h>
#include <RadarWatch/state.h>

namespace {

using radar::Event;
using radar::detail::EventQueue;
using radar::detail::Inbox;
using radar::detail::State;
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

/// What a reader finds of these events who has slept while so many others followed that they are merged.
std::vector<std::string> merged(const std::vector<Event>& events) {
    State present;
    Inbox inbox;
    inbox.catchUp(present, {});
    const auto put = [&](const Event& event) {
        present.apply(event);
        inbox.put({event});
    };
    for (const Event& event : events)
        put(event);
    const Event later = about("later", Kind::Changed);
    for (std::size_t i = 0; i < EventQueue::kKept + 1; ++i) // one of them is old, and alone
        put(later);
    EXPECT_EQ(inbox.radars(present, {}).size(), present.radars.size()) << "as it is, while nothing was taken";

    const auto isReadable = [&] {
        pollfd ready{inbox.descriptor(), POLLIN, 0};
        return ::poll(&ready, 1, 0) == 1;
    };
    State told;
    std::vector<std::string> texts;
    while (isReadable()) {
        const auto event = inbox.take();
        told.apply(event.value());
        texts.push_back(text(*event));
        EXPECT_EQ(inbox.radars(present, {}).size(), told.radars.size());
    }
    EXPECT_FALSE(inbox.take());
    EXPECT_THAT(difference(told, present, {}), testing::IsEmpty());
    EXPECT_EQ(std::erase(texts, text(later)), EventQueue::kKept + 1);
    return texts;
}

TEST(Inbox, ReaderThatSleptFindsTheOlderEventsOfOneSubjectMerged) {
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
        {{appeared, about("S", Kind::Appeared), left, local("", "10.1.0.1"), about("S", Kind::Left), appeared,
          conflict(16, {"R", "S"})},
         {"local 10.1.0.1 ()", "R appeared, 17 at 0.0.0.0", "16 shared: R S"}},
        {{conflict(16, {"R", "S"}), conflict(17, {"T", "U"}), conflict(16, {"S"})},
         {"17 shared: T U", "16 ended: S, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "10.1.0.2")}, {"local 10.1.0.2 (), merged 1"}},
        {{local("10.1.0.1", "10.1.0.2"), local("10.1.0.2", "10.1.0.3")},
         {"local changed 10.1.0.3 (), merged 1"}},
        {{local("10.1.0.1", "10.1.0.2"), local("10.1.0.2", "")}, {"lost 10.1.0.1, merged 1"}},
        {{local("", "10.1.0.1"), local("10.1.0.1", "")}, {}},
    };
    for (const Case& one : cases)
        EXPECT_EQ(merged(one.events), one.expected);
}

TEST(EventQueue, WhatWasTakenIsMergedWithNothingThatFollows) {
    EventQueue queue;
    const auto pushLater = [&] {
        for (std::size_t i = 0; i < EventQueue::kKept; ++i)
            queue.push(about("later", Kind::Changed));
    };
    queue.push(about("R", Kind::Appeared));
    queue.push(about("S", Kind::Appeared));
    EXPECT_EQ(text(queue.pop()), "R appeared, 16 at 0.0.0.0") << "which was among the recent ones";
    pushLater();
    EXPECT_EQ(text(queue.pop()), "S appeared, 16 at 0.0.0.0") << "which was among the old ones";
    queue.push(about("S", Kind::Changed, 1));
    pushLater();
    std::vector<std::string> texts;
    while (!queue.empty())
        texts.push_back(text(queue.pop()));
    EXPECT_EQ(texts.size(), EventQueue::kKept + 2);
    EXPECT_EQ(texts[0],
              "later changed, 16 at 0.0.0.0, bits 0, merged " + std::to_string(EventQueue::kKept - 1));
    EXPECT_EQ(texts[1], "S changed, 16 at 0.0.0.0, bits 1");
}

} // namespace
