#include <UdpSocket/transport/tcp_connection.h>

#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/tcp_sites.h>
#include <UdpSocket/udpsocket.h>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>
#include <string>

namespace net::detail {

namespace {

/// Whether a socket is connected to itself: where nobody listens on a port of this machine, the system may in
/// the end give an attempt that very port to come from, and lets it succeed.
bool isConnectedToItself(const Descriptor& socket) {
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t ownLength = sizeof own;
    socklen_t peerLength = sizeof peer;
    return ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
           ::getpeername(socket.get(), reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

} // namespace

void Connection::setOptions(unsigned int localIp, const ErrorReporter& errors) const {
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    enableKeepAlive(socket);
    if (const std::string name = localIp == 0 ? "" : localIfaName(localIp);
        !name.empty() && !bindToDevice(socket, deviceName(name)))
        errors.report(tcp_site::kClientBindToDevice);
    if (!setOption(socket, SOL_SOCKET, SO_RCVTIMEO, toTimeval(kTcpTimeOut)))
        errors.report(tcp_site::kClientReceiveTimeOut);
}

bool Connection::connect(const sockaddr_in& server, const Pause& ending) const {
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        if (errno != EINPROGRESS)
            return false;
        pollfd writable{socket.get(), POLLOUT, 0};
        int ready;
        do {
            if (ending.stopped())
                return false;
            ready = ::poll(&writable, 1, -1);
        } while (ready == -1 && errno == EINTR);
        if (ready == -1)
            return false;
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0 ||
            ending.stopped())
            return false;
    }
    if (isConnectedToItself(socket)) {
        const sockaddr nobody{AF_UNSPEC, {}}; // dissolves it, so that a server can have the port
        static_cast<void>(::connect(socket.get(), &nobody, sizeof nobody));
        return false;
    }
    return ::fcntl(socket.get(), F_SETFL, 0) == 0; // blocking from here on
}

void Connection::stand() {
    State fresh = State::kFresh;
    m_state.compare_exchange_strong(fresh, State::kStanding);
}

void Connection::end() {
    m_state = State::kEnded;
    endStream(socket);
}

void Connection::lose(State next) {
    State before = m_state;
    while ((before == State::kStanding || before == State::kPeerEnded) &&
           !m_state.compare_exchange_weak(before, next)) {
    }
}

} // namespace net::detail
