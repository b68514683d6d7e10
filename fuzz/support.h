/// @file
/// What the fuzz targets share. Every target runs in a network of its own, and nothing that it sends reaches
/// even that.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Datagrams that the library has sent.
extern std::atomic<unsigned int> sent;

/// Ends the run with a finding when a promise of the library does not hold.
inline void require(bool promise) {
    if (!promise)
        __builtin_trap();
}

/// Has the library read @p text as its profile.ini.
void setProfile(const char* text);

} // namespace fuzz
