/// @file
/// What kind of address a sender or receiver was given.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

namespace net::detail {

enum class Kind { Unicast, Multicast, Broadcast };

/// Of broadcast addresses only 255.255.255.255 is one; a subnet's counts as unicast.
inline Kind kindOf(const std::string& address) {
    if (address == "255.255.255.255")
        return Kind::Broadcast;
    return IN_MULTICAST(ntohl(::inet_addr(address.c_str()))) ? Kind::Multicast : Kind::Unicast;
}

} // namespace net::detail
