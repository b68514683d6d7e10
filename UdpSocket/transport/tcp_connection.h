/// @file
/// One socket of a TCP client, with what has become of it.
#pragma once

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/transport/tcp_stream.h>

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <utility>

namespace net::detail {

/// Every thread that works on a connection holds it: a thread that is late cannot touch, or mark as lost, the
/// one that has replaced its own. Any thread may call any operation, but for setOptions() and connect(),
/// which are for the one that makes the connection.
class Connection {
public:
    enum class State {
        kFresh,     // not connected yet
        kStanding,  // all that counts as connected
        kPeerEnded, // nothing comes any more, while what was to be sent by then still goes out
        kLost,      // lost; the socket is left as it is
        kEnded,     // by ourselves: what its threads meet from now on is no error
    };

    explicit Connection(Descriptor descriptor) : socket(std::move(descriptor)) {}

    /// @param localIp network order: of the interface that it is to lead through; 0: any
    void setOptions(unsigned int localIp, const ErrorReporter& errors) const;
    /// A blocking connect that end() cuts short once @p ending is stopped: one of the two is noticed.
    bool connect(const sockaddr_in& server, const Pause& ending) const;

    State state() const { return m_state; }
    bool stands() const { return m_state == State::kStanding; }
    bool takesBytes() const { return stands() || m_state == State::kPeerEnded; }
    /// Comes to stand, unless it has ended meanwhile.
    void stand();
    void end();
    /// The loss of a connection that stood. @param next kPeerEnded or kLost
    void lose(State next);

    const Descriptor socket; ///< closed where the system refused one
    Turns sends;

private:
    std::atomic<State> m_state = State::kFresh;
};

using ConnectionPtr = std::shared_ptr<Connection>;

} // namespace net::detail
