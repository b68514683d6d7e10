#include <lab/failing_memory.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr int kUnarmed = -1;

std::atomic<int> s_armed = kUnarmed; // the value of a FailingMemory::Threads
std::atomic<long> s_calls = 0;
std::atomic<long> s_first = 0;
std::atomic<long> s_count = 0;
std::atomic<bool> s_hit = false;

thread_local bool t_own = false; // it has made the FailingMemory that there is

bool fails() {
    const int armed = s_armed;
    if (armed == kUnarmed || soundAllocations > 0)
        return false;
    const auto threads = static_cast<FailingMemory::Threads>(armed);
    if (threads != FailingMemory::Threads::kAll && t_own != (threads == FailingMemory::Threads::kOwn))
        return false;
    const long call = ++s_calls;
    if (call < s_first || call - s_first >= s_count)
        return false;
    s_hit = true;
    return true;
}

void* allocate(std::size_t size) noexcept {
    return fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void* allocate(std::size_t size, std::align_val_t alignment) noexcept {
    const auto step = static_cast<std::size_t>(alignment);
    return fails() ? nullptr
                   : std::aligned_alloc(step, (size / step + 1) * step); // whole steps, at least one
}
void* orThrow(void* memory) {
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

FailingMemory::FailingMemory(long first, Threads threads, long count) {
    t_own = true;
    s_hit = false;
    s_calls = 0;
    s_first = first;
    s_count = count;
    s_armed = static_cast<int>(threads);
}

FailingMemory::~FailingMemory() {
    s_armed = kUnarmed;
    t_own = false;
}

bool FailingMemory::hit() const {
    return s_hit;
}

// Every form, since a sanitizer's runtime has all of them.
using Size = std::size_t;
using Alignment = std::align_val_t;
using NoThrow = std::nothrow_t;

// clang-format off
void* operator new(Size size) { return orThrow(allocate(size)); }
void* operator new[](Size size) { return orThrow(allocate(size)); }
void* operator new(Size size, const NoThrow&) noexcept { return allocate(size); }
void* operator new[](Size size, const NoThrow&) noexcept { return allocate(size); }
void* operator new(Size size, Alignment alignment) { return orThrow(allocate(size, alignment)); }
void* operator new[](Size size, Alignment alignment) { return orThrow(allocate(size, alignment)); }
void* operator new(Size size, Alignment alignment, const NoThrow&) noexcept { return allocate(size, alignment); }
void* operator new[](Size size, Alignment alignment, const NoThrow&) noexcept { return allocate(size, alignment); }

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, Size) noexcept { std::free(memory); }
void operator delete[](void* memory, Size) noexcept { std::free(memory); }
void operator delete(void* memory, const NoThrow&) noexcept { std::free(memory); }
void operator delete[](void* memory, const NoThrow&) noexcept { std::free(memory); }
void operator delete(void* memory, Alignment) noexcept { std::free(memory); }
void operator delete[](void* memory, Alignment) noexcept { std::free(memory); }
void operator delete(void* memory, Size, Alignment) noexcept { std::free(memory); }
void operator delete[](void* memory, Size, Alignment) noexcept { std::free(memory); }
void operator delete(void* memory, Alignment, const NoThrow&) noexcept { std::free(memory); }
void operator delete[](void* memory, Alignment, const NoThrow&) noexcept { std::free(memory); }
// clang-format on
