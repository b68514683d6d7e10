/// @file
/// Connections by each of the implementations, behind one interface.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

/// A client with one connection, or a server with many. Receives on threads of its own.
class Tcp {
public:
    virtual ~Tcp() = default;
    /// To all peers, one after the other; returns when the system has the bytes.
    virtual void send(const char* data, std::size_t length) = 0;
    /// Returns when there are so many peers. Comes before the first send.
    virtual void awaitPeers(int count) = 0;
};

struct TcpPlan {
    std::string ip{};
    unsigned short port = 0;
    /// Called for each piece of the stream; null: nothing is expected.
    std::function<void(Tcp*, const char* data, std::size_t length)> received{};
};

struct TcpImplementation {
    const char* name;
    std::unique_ptr<Tcp> (*client)(const TcpPlan&);
    std::unique_ptr<Tcp> (*server)(const TcpPlan&); ///< sends only
};

/// Raw system calls first, the library second, then its competitors.
const std::vector<TcpImplementation>& tcpImplementations();

/// Raw system calls that wait for no client: what does not fit into its buffer is lost to it.
std::unique_ptr<Tcp> makeRawNonBlockingServer(const TcpPlan& plan);

inline constexpr int kTcpBuffer = 204800; // bytes that are received at once, by the library's client too

} // namespace bench
