/// @file
/// For programs whose tests exit in a callback: threads that this leaves behind end, and nobody joins them.
#pragma once

#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "report_thread_leaks=0";
}
#endif
