/// @file
/// Reading sockets that never block, and the wire below them.
#pragma once

#include "observation.h"

#include <UdpSocket/base/socket.h>

#include <string>

namespace doctor {

using net::detail::Descriptor;

struct Datagram {
    std::string bytes;
    sockaddr_storage from;
    Seconds received; ///< by the kernel, wall clock
};

Seconds wallClock();

/// The next datagram that waits; false when there is none.
bool receive(const Descriptor& socket, Datagram& datagram);

/// Packets of IGMP, and of UDP to the groups of the library, from their IP header on, before the kernel
/// judges them. Not open without privileges.
Descriptor openWire(int interfaceIndex);

} // namespace doctor
