/// @file
/// Allocations that fail when a test says so. A program that links failing_memory.cpp has its operator new in
/// the place of the standard library's; what malloc gives otherwise is not touched.
#pragma once

#include <limits>

/// While the object lives, allocations by operator new fail with std::bad_alloc. There can be one at a time.
class FailingMemory {
public:
    enum class Threads {
        kOthers, ///< all but the one that makes the object: the library's
        kOwn,    ///< only that one: the application's
        kAll,
    };
    static constexpr long kEver = std::numeric_limits<long>::max();

    /// @param first the first allocation that fails, counted from 1 over all the threads meant
    /// @param count how many fail from there on
    explicit FailingMemory(long first, Threads threads = Threads::kOthers, long count = 1);
    ~FailingMemory();
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;

    /// Whether an allocation has failed. Without one, the count has gone past all that there are.
    bool hit() const;
};

/// While it is not 0, this thread's allocations neither fail nor count: for what a test does on threads of
/// its own, and in callbacks.
inline thread_local int soundAllocations = 0;
