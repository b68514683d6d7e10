/// @file
/// The sending side of a server's client: nobody waits long for it, and no message of it is torn.
#pragma once

#include <UdpSocket/transport/tcp_stream.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace net::detail {

/// What goes out to one client. A send that the client does not take in time leaves its rest here, to go
/// before anything else. Until that has gone and there is room again the client is behind: no send waits for
/// it. Any thread may call any operation.
class Outgoing {
public:
    /// @param socket the client's, which outlives this
    explicit Outgoing(const Descriptor& socket) : m_socket(socket) {}

    bool isBehind() const { return m_behind; }
    /// Whether nobody sends, and nothing is left to be sent.
    bool isIdle() const { return m_turns.isEmpty() && restLength() == 0; }
    std::size_t restLength() const { return m_restLength; }

    /// Goes on with the rest as far as there is room, unless somebody sends just now.
    void catchUp();
    /// Returns when those who send now have done so.
    void awaitSenders();
    /// @return whether there is room, or the connection has failed, before the time is over
    bool awaitRoom(std::chrono::milliseconds time) const;

private:
    friend class Sending;

    bool sendRest();
    bool keepRest(const Message& message, std::size_t begin);

    const Descriptor& m_socket;
    Turns m_turns;
    std::atomic<bool> m_behind = false;
    std::atomic<std::size_t> m_restLength = 0;
    std::string m_rest; // belongs to who has the turn
};

/// One message to one client, from the moment that it takes its place behind those that were sent before.
/// One thread at a time.
class Sending {
public:
    /// Both outlive it.
    Sending(Outgoing& outgoing, const Message& message)
        : m_outgoing(outgoing), m_message(message), m_place(std::in_place, outgoing.m_turns) {}

    /// Sends what can be sent without waiting. @return whether the send is over
    bool sendAtOnce() { return m_place->isFirst() && attempt(); }
    /// Waits for its turn, and then half a second at most for the client to take all. Not once it is over.
    void finish();

    /// Once it is over: how many bytes are sent, the rest of them by and by; 0 for an empty message, or -1.
    ssize_t result() const { return m_result; }
    int code() const { return m_code; } ///< the errno that belongs to the result

private:
    bool attempt();
    void giveUp();
    bool end(ssize_t result, int code);

    Outgoing& m_outgoing;
    const Message& m_message;
    std::optional<Turns::Place> m_place; // until it is over
    std::size_t m_sent = 0;
    ssize_t m_result = -1;
    int m_code = 0;
};

} // namespace net::detail
