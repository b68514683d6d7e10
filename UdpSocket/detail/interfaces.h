/// @file
/// Local addresses for use inside the library.
#pragma once

#include <set>
#include <string>

namespace net {

/// All local IPv4 addresses, network order, without 127.0.0.1 and 0. When the system cannot list them: {0},
/// after a line on standard error.
std::set<unsigned int> localIpSet();

namespace detail {

/// The device behind an interface name: the name without an alias suffix ("eth0" for "eth0:1").
std::string deviceName(const std::string& interfaceName);

} // namespace detail
} // namespace net
