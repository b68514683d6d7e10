#include <tests/failing_memory.h>

#include <UdpSocket/protocol/radar_table.h>

#include <gmock/gmock.h>
#include <malloc.h>

namespace {

using protocol::RadarTable;
using testing::ElementsAre;
using testing::IsEmpty;
constexpr std::size_t kMax = RadarTable::kMaxNames;

/// Runs @p action with memory for @p allocations only. @return whether that was enough
template <class Action>
bool succeedsWith(long allocations, const Action& action) {
    const FailingMemory memory(allocations + 1, FailingMemory::Threads::kOwn, FailingMemory::kEver);
    try {
        action();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// A table with what it answers in words.
struct Table : RadarTable {
    std::string put(const std::string& name, std::uint32_t source, Seconds now = 0) {
        RadarAddress record{};
        record.head = source;
        const Update result = update(name, record, source, now);
        const char* const words[] = {"added", "updated", "refused"};
        return words[static_cast<int>(result.change)] +
               (result.displaced.empty() ? "" : " for " + result.displaced);
    }
    /// Names of a source: "name 0", "name 1" and so on.
    void fill(const std::string& name, std::uint32_t source, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(put(name + " " + std::to_string(i), source), "added");
    }
    std::vector<std::string> removed(Seconds now) {
        std::vector<std::string> names;
        for (const Removal& removal : expire(now))
            names.push_back(removal.name + " " + std::to_string(removal.lastSeen));
        return names;
    }
    /// All that can be seen of it.
    std::vector<std::string> contents() const {
        std::vector<std::string> all;
        for (const auto& [name, entry] : entries())
            all.push_back(name + " " + std::to_string(entry.record.head) + " " +
                          std::to_string(entry.source) + " " + std::to_string(entry.lastSeen) + " " +
                          std::to_string(entry.sequence));
        return all;
    }
};

// Which names stay and leave, the simulation shows (simulation/table_oracle.h).

TEST(RadarTable, NamesStandInByteOrderAndLeaveInIt) {
    Table table;
    for (const char* name : {"b", "\xC3\x84", "", "B", "b:TCP"})
        table.put(name, 1, 1000);
    std::vector<std::string> names;
    for (const auto& [name, entry] : table.entries())
        names.push_back(name);
    EXPECT_THAT(names, ElementsAre("", "B", "b", "b:TCP", "\xC3\x84"));
    EXPECT_THAT(table.removed(1008), ElementsAre(" 1000", "B 1000", "b 1000", "b:TCP 1000", "\xC3\x84 1000"));
    EXPECT_THAT(table.entries(), IsEmpty());
}

TEST(RadarTable, ANameGivesWayOnlyWhereTheNewcomersSourceStillHasFewerAfterwards) {
    for (const std::size_t fewer : {2U, 3U}) {
        Table table;
        table.fill("a", 1, 2000);
        table.fill("b", 2, 2000 - fewer);
        table.fill("c", 3, kMax - table.entries().size());
        EXPECT_EQ(table.put("new", 2), fewer == 2 ? "refused" : "added for a 1999");
    }
}

TEST(RadarTable, UpdateByTheSameSourceNeedsNoMemory) {
    Table table;
    table.put("R", 1);
    RadarAddress other{};
    other.head = 7;
    EXPECT_TRUE(succeedsWith(0, [&] { table.update("R", other, 1, 5); }));
    EXPECT_EQ(table.find("R")->lastSeen, 5);
    EXPECT_EQ(table.find("R")->record.head, other.head);
}

TEST(RadarTable, SourcesThatHaveLeftTakeNoMemory) {
    Table table;
    const auto usedAfterAThousandFrom = [&](std::uint32_t first) {
        for (std::uint32_t i = 0; i < 1000; ++i)
            table.put("R" + std::to_string(i), first + i);
        table.expire(8);
        return ::mallinfo2().uordblks; // 0 under a sanitizer
    };
    const std::size_t before = usedAfterAThousandFrom(0);
    EXPECT_LT(usedAfterAThousandFrom(1000), before + 1000);
}

TEST(RadarTable, OperationThatRunsOutOfMemoryLeavesTheTableAsItWas) {
    const auto prepare = [](Table& table, bool full) {
        table.fill("a long name, which needs memory", 1, full ? kMax - 20 : 20);
        table.fill("b", 2, 19);
        table.put("c", 3);
    };
    const auto update = [](const char* name, std::uint32_t source) {
        return [=](Table& table) { table.update(name, {}, source, 5); };
    };
    const struct {
        const char* what;
        bool full;
        std::function<void(Table&)> happens;
    } cases[] = {
        {"new name of a new source", false, update("a new name, which needs memory", 4)},
        {"new name of a known source", false, update("a new name, which needs memory", 2)},
        {"new name in a full table", true, update("a new name, which needs memory", 4)},
        {"name goes to a known source", false, update("b 0", 1)},
        {"name goes to a new source", false, update("b 0", 4)},
        {"only name of its source goes to another", false, update("c", 1)},
        {"expiry", false, [](Table& table) { table.expire(8); }},
    };
    for (const auto& [what, full, happens] : cases) {
        Table undisturbed;
        prepare(undisturbed, full);
        const std::vector<std::string> before = undisturbed.contents();
        happens(undisturbed);
        long allocations = 0;
        for (bool done = false; !done; ++allocations) {
            SCOPED_TRACE(what + (" with memory for " + std::to_string(allocations)));
            Table table;
            prepare(table, full);
            done = succeedsWith(allocations, [&, &act = happens] { act(table); });
            if (!done) {
                EXPECT_EQ(table.contents(), before);
                happens(table);
            }
            EXPECT_EQ(table.contents(), undisturbed.contents());
            if (full) { // who gives way shows what else the table keeps
                EXPECT_EQ(table.put("next", 2), "added for a long name, which needs memory 4074");
            }
            EXPECT_EQ(table.removed(100).size(), undisturbed.entries().size());
        }
        EXPECT_GT(allocations, 1) << what << " needs memory";
    }
}

} // namespace
