#include "../test.h"

#include <lab/failing_memory.h>

#include <UdpSocket/protocol/radar_table.h>

#include <malloc.h>

namespace {

using protocol::RadarTable;

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

/// Names of a source: "name 0", "name 1" and so on.
void fill(RadarTable& table, const std::string& name, std::uint32_t source, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        table.update(name + " " + std::to_string(i), {}, source, 0);
}

/// All that can be seen of a table.
std::vector<std::string> contents(const RadarTable& table) {
    std::vector<std::string> all;
    for (const auto& [name, entry] : table.entries())
        all.push_back(name + " " + std::to_string(entry.source) + " " + std::to_string(entry.lastSeen) + " " +
                      std::to_string(entry.sequence));
    return all;
}

// Which names stay and leave, the simulation shows (simulation/table_oracle.h).

TEST(RadarTable, SourcesThatHaveLeftTakeNoMemory) {
    RadarTable table;
    const auto usedAfterAThousandFrom = [&](std::uint32_t first) {
        for (std::uint32_t i = 0; i < 1000; ++i)
            table.update("R" + std::to_string(i), {}, first + i, 0);
        table.expire(8);
        return ::mallinfo2().uordblks; // 0 under a sanitizer
    };
    const std::size_t before = usedAfterAThousandFrom(0);
    EXPECT_LT(usedAfterAThousandFrom(1000), before + 1000);
}

TEST(RadarTable, OperationThatRunsOutOfMemoryLeavesTheTableAsItWas) {
    const auto prepare = [](RadarTable& table, bool full) {
        fill(table, "a long name, which needs memory", 1, full ? RadarTable::kMaxNames - 20 : 20);
        fill(table, "b", 2, 19);
        table.update("c", {}, 3, 0);
    };
    const struct {
        const char* what;
        bool full;
        std::string name; // empty: all expire
        std::uint32_t source;
        bool needsMemory = true;
    } cases[] = {
        {"new name of a new source", false, "a new name, which needs memory", 4},
        {"new name of a known source", false, "a new name, which needs memory", 2},
        {"new name in a full table", true, "a new name, which needs memory", 4},
        {"name stays with its source", false, "b 0", 2, false},
        {"name goes to a known source", false, "b 0", 1},
        {"only name of its source goes to a new one", false, "c", 4},
        {"expiry", false, "", 0},
    };
    for (const auto& [what, full, name, source, needsMemory] : cases) {
        const auto happens = [&, &to = name, by = source](RadarTable& table) {
            if (to.empty())
                table.expire(8);
            else
                table.update(to, {}, by, 5);
        };
        RadarTable undisturbed;
        prepare(undisturbed, full);
        const std::vector<std::string> before = contents(undisturbed);
        happens(undisturbed);
        long allocations = 0;
        for (bool done = false; !done; ++allocations) {
            SCOPED_TRACE(what + (" with memory for " + std::to_string(allocations)));
            RadarTable table;
            prepare(table, full);
            done = succeedsWith(allocations, [&] { happens(table); });
            if (!done) {
                EXPECT_EQ(contents(table), before);
                happens(table);
            }
            EXPECT_EQ(contents(table), contents(undisturbed));
            if (full) { // who gives way shows what else the table keeps
                EXPECT_EQ(table.update("next", {}, 2, 0).displaced, "a long name, which needs memory 4074");
            }
            EXPECT_EQ(table.expire(100).size(), undisturbed.entries().size());
        }
        EXPECT_EQ(allocations > 1, needsMemory) << what;
    }
}

} // namespace
