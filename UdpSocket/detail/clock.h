/// @file
/// The time by which radars age, replaceable by tests.
#pragma once

#include <cstdint>

namespace net::detail {

/// Seconds since the epoch.
std::int64_t now();

/// Makes now() answer what @p clock answers; null brings the system's clock back. Any thread.
void setClock(std::int64_t (*clock)());

} // namespace net::detail
