/// @file
/// The clients of a TCP server, and the sends to them.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/transport/tcp_server_client.h>
#include <UdpSocket/transport/tcp_stream.h>

#include <cstddef>
#include <map>

namespace net::detail {

/// Who is connected, by the number of the descriptor, and who is leaving: no client any more, while its last
/// bytes go out. Any thread may call any operation.
class ClientTable {
public:
    std::size_t size() const;
    /// @return false where another client has its number: somebody closed that one's behind our back
    bool add(const ServerClientPtr& client);
    /// From here on no send to it begins.
    void beginLeaving(const ServerClientPtr& client);
    void endLeaving(const ServerClientPtr& client);
    /// Ends the connection of one by the application's wish; its thread notices and does the rest.
    /// @return false where there is no such client
    bool close(int fd);
    /// Ends every connection, also of who is leaving.
    void endStreams();
    void clear();

    /// One thread for each client that does not take everything at once, joined before this returns. Reports
    /// at @p site what goes wrong. @throws std::bad_alloc before the first byte has gone out
    void sendToAll(const Message& message, const ReportSite& site);
    /// Sends on the caller's thread, and prints what goes wrong. @return whether anything is sent (errno)
    bool sendTo(int fd, const Message& message);
    /// The same to the first client whose address begins with @p address.
    bool sendTo(const char* address, int port, const Message& message);

private:
    using Clients = std::map<int, ServerClientPtr>;

    ServerClientPtr find(int fd) const REQUIRES(m_mutex);

    mutable Mutex m_mutex;
    Clients m_clients GUARDED_BY(m_mutex);
    Clients m_leaving GUARDED_BY(m_mutex);
};

} // namespace net::detail
