/// @file
/// Local addresses for use inside the library.
#pragma once

#include <UdpSocket/udpsocket.h>

#include <map>
#include <optional>
#include <set>
#include <string>

namespace net {

/// All local IPv4 addresses, network order, without 127.0.0.1 and 0. When the system cannot list them: {0},
/// after a line on standard error.
std::set<unsigned int> localIpSet();

namespace detail {

/// As localNetworkInterfaces(), but nothing where the system cannot list them.
std::optional<std::map<unsigned int, tNetworkInterface>> listInterfaces();

/// The device behind an interface name: the name without an alias suffix ("eth0" for "eth0:1").
std::string deviceName(const std::string& interfaceName);

/// The interface that carries @p localIp (network order), as the system names it; empty: there is none, or
/// the system cannot say, which is not reported.
std::string interfaceName(unsigned int localIp);

/// The index of the interface that carries @p localIp, or, for 0, of the one through which the system sends
/// to @p group (both network order). 0: there is none, or the system cannot say, which is not reported.
unsigned int interfaceIndex(unsigned int localIp, unsigned int group);

} // namespace detail
} // namespace net
