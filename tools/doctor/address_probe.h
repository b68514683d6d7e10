/// @file
/// Whether another computer has one of this computer's addresses.
#pragma once

#include "socket.h"

#include <set>
#include <string>

namespace doctor {

/// Asks by ARP as a computer does before it takes an address (RFC 5227): nobody's neighbour table changes.
/// Without privileges it does nothing.
class AddressProbe {
public:
    explicit AddressProbe(const Interface& interface);

    void ask();
    /// The hardware addresses of others that have answered since the last call.
    std::set<std::string> holders();

private:
    int m_interfaceIndex;
    unsigned int m_ip; // the first address of the interface
    Descriptor m_socket;
};

} // namespace doctor
