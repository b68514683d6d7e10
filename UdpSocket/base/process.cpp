#include <UdpSocket/base/process.h>

#include <pthread.h>

#include <atomic>

namespace net::detail {

namespace {

std::atomic<unsigned int> s_generation = 0;

// Ids of processes would not do: a child in another namespace of them can have its parent's.
[[maybe_unused]] const int s_registered = ::pthread_atfork(nullptr, nullptr, [] { ++s_generation; });

} // namespace

unsigned int forkGeneration() noexcept {
    return s_generation.load(std::memory_order_relaxed);
}

} // namespace net::detail
