/// @file
/// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the run with a finding when a promise of the library does not hold.
inline void require(bool promise) {
    if (!promise)
        __builtin_trap();
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

} // namespace fuzz
