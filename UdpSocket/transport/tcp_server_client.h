/// @file
/// One client of a TCP server.
#pragma once

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/transport/tcp_outgoing.h>

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <string>

namespace net {

class iTcpDataListener;

namespace detail {

/// One shared object a client, which owns the descriptor: the table and every thread that receives from or
/// sends to the client hold it, so that the number is not given to another connection while one of them may
/// use it. Any thread may call any operation, but for receive() and sendLeftovers(), which are for the
/// client's own thread.
class ServerClient {
public:
    /// @param server where it was accepted: a send may outlast that @throws std::bad_alloc
    ServerClient(Descriptor socket, const sockaddr_in& peer, ErrorReporter server);

    int number() const { return m_socket.get(); } ///< of the descriptor, by which applications know it
    const std::string& address() const { return m_address; }
    unsigned short port() const { return m_port; } ///< host order
    Outgoing& outgoing() { return m_outgoing; }
    const ErrorReporter& server() const { return m_server; }

    /// Sets the time-outs of its calls and has the system watch a silent peer; reports what is refused.
    void setOptions() const;

    /// Ends the connection by the application's wish.
    void close();
    bool isClosed() const { return m_closed; }
    /// Ends the connection since the server ends.
    void endStream() const { detail::endStream(m_socket); }

    /// Hands what comes to @p listener, and sends what the client has not taken in time, as long as
    /// @p running is set and the connection stands. @param listener may be null
    /// @return whether the peer has ended its own direction
    bool receive(const std::atomic<bool>& running, iTcpDataListener* listener);
    /// Lets sends that are under way to a peer that has ended its own direction go on, and their rest, as
    /// long as it takes something now and then and @p running is set; then closes.
    void sendLeftovers(const std::atomic<bool>& running);

private:
    const Descriptor m_socket;
    const std::string m_address;
    const unsigned short m_port;
    const ErrorReporter m_server;
    std::unique_ptr<char[]> m_buffer; // until nothing is received any more
    std::atomic<bool> m_closed = false;
    Outgoing m_outgoing{m_socket};
};

using ServerClientPtr = std::shared_ptr<ServerClient>;

} // namespace detail
} // namespace net
