/// @file
/// A signal that does nothing but interrupt what threads wait for.
#pragma once

#include "test.h"
#include <sys/syscall.h>

/// Sends a profiler's signal, which the library's threads take, to every thread of this process.
inline void interruptThreads() {
    std::signal(SIGPROF, [](int) {});
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
        ::syscall(SYS_tgkill, ::getpid(), std::stoi(thread.path().filename()), SIGPROF);
}
