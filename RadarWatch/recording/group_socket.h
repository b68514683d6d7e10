/// @file
/// Sockets that hear one group on one interface.
#pragma once

#include <UdpSocket/base/descriptor.h>
#include <UdpSocket/radaraddress.h>

#include <string>

namespace radar::recording {

/// A socket that never blocks, bound to the group and joined on that device alone, which needs no privileges.
/// @param receiveBuffer bytes to ask the system for
/// @return not open where the system refuses (errno)
net::detail::Descriptor openGroup(const std::string& interface, const NetAddress& group, int receiveBuffer);

} // namespace radar::recording
