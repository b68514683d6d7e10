#include <UdpSocket/transport/tcp_outgoing.h>

#include <UdpSocket/base/thread.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>

namespace net::detail {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::chrono::milliseconds timeUntil(Clock::time_point deadline) {
    return std::max(0ms, std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
}

} // namespace

void Outgoing::catchUp() {
    const Turns::Place place(m_turns);
    if (place.isFirst() && m_behind)
        sendRest();
}

void Outgoing::awaitSenders() {
    Turns::Place place(m_turns);
    place.waitUntilFirst();
}

bool Outgoing::awaitRoom(std::chrono::milliseconds time) const {
    const auto deadline = Clock::now() + time;
    pollfd writable{m_socket.get(), POLLOUT, 0};
    for (;;) {
        const int ready = ::poll(&writable, 1, static_cast<int>(timeUntil(deadline).count()));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

/// Needs the turn. @return whether the client is not behind any more
bool Outgoing::sendRest() {
    const Message rest(m_rest.data(), m_rest.size());
    while (m_restLength > 0) {
        const ssize_t count = rest.send(m_socket, rest.length() - m_restLength, MSG_DONTWAIT);
        if (count > 0)
            m_restLength -= static_cast<std::size_t>(count);
        else if (count < 0 && errno == EAGAIN)
            return false;
        else if (count == 0 || errno != EINTR)
            m_restLength = 0; // the connection is lost, as the next send finds
    }
    m_rest = std::string();
    if (!awaitRoom(0ms))
        return false;
    m_behind = false;
    return true;
}

/// Needs the turn. @return false without the memory for it: the stream cannot go on, and is ended
bool Outgoing::keepRest(const Message& message, std::size_t begin) {
    if (!runStep("TcpServer: a client", [&] { m_rest = message.copyFrom(begin); })) {
        endStream(m_socket);
        return false;
    }
    m_restLength = m_rest.size();
    return true;
}

void Sending::finish() {
    m_place->waitUntilFirst();
    const auto deadline = Clock::now() + kTcpTimeOut;
    for (bool inTime = true; !attempt();) {
        if (!inTime)
            return giveUp();
        inTime = m_outgoing.awaitRoom(timeUntil(deadline)) && Clock::now() < deadline;
    }
}

/// Leaves the client behind. Needs the turn.
void Sending::giveUp() {
    m_outgoing.m_behind = true;
    if (m_sent == 0)
        end(-1, EAGAIN);
    else if (m_outgoing.keepRest(m_message, m_sent))
        end(static_cast<ssize_t>(m_sent), 0);
    else
        end(-1, ENOMEM);
}

/// Needs the turn. @return whether the send is over
bool Sending::attempt() {
    if (m_outgoing.m_behind && !m_outgoing.sendRest())
        return end(-1, EAGAIN);
    do {
        const ssize_t count = m_message.send(m_outgoing.m_socket, m_sent, MSG_DONTWAIT);
        if (count > 0)
            m_sent += static_cast<std::size_t>(count);
        else if (count < 0 && errno == EAGAIN)
            return false;
        else if (count == 0 || errno != EINTR)
            return end(count, errno);
    } while (m_sent < m_message.length());
    return end(static_cast<ssize_t>(m_sent), 0);
}

bool Sending::end(ssize_t result, int code) {
    m_result = result;
    m_code = code;
    m_place.reset();
    return true;
}

} // namespace net::detail
