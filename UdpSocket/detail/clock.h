/// @file
/// The time by which radars age, replaceable by tests.
#pragma once

#include <cstdint>

namespace net::detail {

/// Seconds since the machine was started, suspension included. Setting the wall clock does not touch it.
std::int64_t now();

/// What the wall clock would have shown at @p moment of now(), going by its present setting: seconds since
/// the epoch.
std::int64_t wallClockAt(std::int64_t moment);

/// Makes now() answer what @p clock answers, in seconds since the epoch; null brings the system's clock back.
/// Any thread.
void setClock(std::int64_t (*clock)());

} // namespace net::detail
