/// @file
/// The radar host's side of discovery: answers every query with the host's endpoints.
#pragma once

#include <cstdint>

#include <UdpSocket/radaraddress.h>

class HostServerPrivate;

/// Announces one radar host. The answer is composed once, from the fixed plan of groups and ports; it is sent
/// to group 236.6.7.5 port 6878 whenever a query arrives there, and never of the server's own accord.
///
/// Life cycle: answers from the end of the constructor to the destructor, which ends the receive thread at
/// once. Threads: one receive thread, which sends the answers. All operations belong to one thread at a time.
/// Errors: a host id or stream count that does not exist is a programming error and ends the process, in
/// every build type, after a message. So does a name longer than the record, which has 148 bytes for it, with
/// two streams 220. Failed sends are reported on standard error and not retried; the receiver sets itself up
/// again as udpsocket.h says. The multicast route decides which interface is used, 2 seconds after it has
/// changed at most.
class __attribute__((visibility("default"))) HostServer {
public:
    /// @param name        the radar's name; displays see at most its first 16 bytes
    /// @param hostId      1, or 16 to 63 as a HostNegotiator gives it
    /// @param streamCount 1 or 2
    HostServer(const char* name, std::uint8_t hostId, std::uint32_t streamCount);

    /// One stream, whose image endpoints are taken from @p addr (imageStream, imageCtrl and imageState,
    /// network byte order; their kinds are not announced) and whose ARPA endpoints follow the plan.
    HostServer(const char* name, std::uint8_t hostId, const RadarAddress& addr);

    ~HostServer();
    HostServer(const HostServer&) = delete;
    HostServer& operator=(const HostServer&) = delete;

private:
    HostServerPrivate* d;
};
