#include <tests/failing_memory.h>

#include <UdpSocket/protocol/radar_table.h>

#include <gtest/gtest.h>
#include <malloc.h>

namespace {

using protocol::RadarTable;
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
    const struct {
        const char* what;
        bool full;
        std::string name; // empty: all expire
        std::uint32_t source;
    } cases[] = {
        {"new name of a new source", false, "a new name, which needs memory", 4},
        {"new name of a known source", false, "a new name, which needs memory", 2},
        {"new name in a full table", true, "a new name, which needs memory", 4},
        {"name goes to a known source", false, "b 0", 1},
        {"only name of its source goes to a new one", false, "c", 4},
        {"expiry", false, "", 0},
    };
    for (const auto& [what, full, name, source] : cases) {
        const auto happens = [&, &to = name, by = source](Table& table) {
            if (to.empty())
                table.expire(8);
            else
                table.update(to, {}, by, 5);
        };
        Table undisturbed;
        prepare(undisturbed, full);
        const std::vector<std::string> before = undisturbed.contents();
        happens(undisturbed);
        long allocations = 0;
        for (bool done = false; !done; ++allocations) {
            SCOPED_TRACE(what + (" with memory for " + std::to_string(allocations)));
            Table table;
            prepare(table, full);
            done = succeedsWith(allocations, [&] { happens(table); });
            if (!done) {
                EXPECT_EQ(table.contents(), before);
                happens(table);
            }
            EXPECT_EQ(table.contents(), undisturbed.contents());
            if (full) { // who gives way shows what else the table keeps
                EXPECT_EQ(table.put("next", 2), "added for a long name, which needs memory 4074");
            }
            EXPECT_EQ(table.expire(100).size(), undisturbed.entries().size());
        }
        EXPECT_GT(allocations, 1) << what << " needs memory";
    }
}

} // namespace
