/// @file
/// Datagrams by each of the implementations, behind one interface.
#pragma once

#include <UdpSocket/base/socket.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Group {
    std::string address{};
    unsigned short port = 0;
};

using Datagrams = std::vector<std::pair<const void*, int>>;

/// Receives from its groups on threads of its own as long as it lives, and sends to its destination.
class Udp {
public:
    virtual ~Udp() = default;
    virtual void send(const char* data, std::size_t length) = 0;
    /// One after the other, unless the implementation has a call for several.
    virtual void sendMany(const Datagrams& datagrams) {
        for (const auto& [data, length] : datagrams)
            send(static_cast<const char*>(data), static_cast<std::size_t>(length));
    }
};

struct UdpPlan {
    std::vector<Group> groups{};
    Group destination{};   ///< port 0: nothing is sent
    std::string localIp{}; ///< of the interface for both
    std::function<void(Udp*, const char* data, std::size_t length)> received{};
};

struct UdpImplementation {
    const char* name;
    std::unique_ptr<Udp> (*make)(const UdpPlan&);
};

/// Raw system calls first, the library second, then its competitors.
const std::vector<UdpImplementation>& udpImplementations();
/// Raw system calls on one thread for all groups, which epoll wakes.
std::unique_ptr<Udp> makeRawLoop(const UdpPlan& plan);
/// Raw system calls on a thread a group, whose waits end after half a second.
std::unique_ptr<Udp> makeRawWithTimeOut(const UdpPlan& plan);

/// A socket bound to a group and joined to it, as every raw implementation has it. @throws std::system_error
net::detail::Descriptor rawGroupSocket(const Group& group, const std::string& localIp);

inline constexpr int kUdpBuffer = 65536;              // bytes: the longest datagram
inline constexpr int kSocketBuffer = 10 * kUdpBuffer; // asked of the system by all, as the library does

} // namespace bench
