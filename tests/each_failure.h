/// @file
/// Has every system call of a scenario fail in turn, for each reason that there is, and then every
/// allocation.
#pragma once

#include "faults.h"
#include "test.h"
#include <lab/failing_memory.h>

/// A class at work: an object is made, used in each of its ways, and destroyed.
struct Scenario {
    const char* name;
    /// Ends in bounded time. What must hold whatever has failed is said by EXPECT_...; std::system_error and
    /// std::bad_alloc may come out.
    void (*play)();
    /// Calls that fail without a word, by their names, beside those that are always quiet.
    std::vector<std::string_view> quiet = {};
    /// The same of allocations.
    bool quietMemory = false;
    /// Texts that one failing call or another must bring to standard output or error.
    std::vector<std::string> said = {};
};

inline void PrintTo(const Scenario& scenario, std::ostream* stream) {
    *stream << scenario.name;
}
inline std::string nameOf(const testing::TestParamInfo<Scenario>& info) {
    return info.param.name;
}

/// Plays the scenario once for every call, and reason that it can fail for, each time in a process of its
/// own: it neither crashes nor hangs, leaves no descriptor or thread, and says what has failed.
void failEachCall(const Scenario& scenario);
/// The same with every allocation, whichever thread makes it.
void failEachAllocation(const Scenario& scenario);

/// While it lives, what its thread does neither fails nor counts.
struct Sound {
    Sound() {
        ++soundCalls;
        ++soundAllocations;
    }
    ~Sound() {
        --soundCalls;
        --soundAllocations;
    }
    Sound(const Sound&) = delete;
    Sound& operator=(const Sound&) = delete;
};

/// Whether @p condition, which is asked with nothing failing, comes true in a while that costs little.
template <class Condition>
bool soon(Condition condition) {
    const Sound sound;
    return comesTrue(condition, std::chrono::milliseconds(100));
}
/// The same, where it must come true in the end. What @p condition calls of the library may fail.
template <class Condition>
bool inTheEnd(Condition condition) {
    return comesTrue(condition, std::chrono::seconds(30));
}
/// Whether that text stands on standard error, which a scenario finds empty.
bool isSaid(std::string_view text);
