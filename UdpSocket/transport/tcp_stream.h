/// @file
/// What both ends of a TCP connection share: messages that go out whole and one after the other, and the end
/// of the connection.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/socket.h>

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace net::detail {

using Parts = std::vector<std::pair<const void*, int>>;

/// How often a thread in a receive call looks whether it is still wanted, and how long a server's send to a
/// client that does not read may take.
inline constexpr std::chrono::milliseconds kTcpTimeOut{500};

/// How long a peer that was asked may be silent, or one that has ended its own direction may take nothing.
inline constexpr std::chrono::seconds kLongestSilence{15};

/// What one send is to bring to the peer: bytes, or several pieces in order. Refers to the caller's memory;
/// sending takes none. Several threads may send one message.
class Message {
public:
    Message(const char* data, std::size_t length) : m_data(data), m_length(length) {}
    /// Several pieces, as writev takes and refuses them. @throws std::bad_alloc
    explicit Message(const Parts& parts);

    std::size_t length() const { return m_length; }
    /// One system call for what comes behind the first @p begin bytes, or for a part of it; it never raises
    /// SIGPIPE. @return its result; 0 leaves errno 0
    ssize_t send(const Descriptor& socket, std::size_t begin, int flags) const;
    /// What comes behind the first @p begin bytes. @throws std::bad_alloc
    std::string copyFrom(std::size_t begin) const;

private:
    const char* const m_data = nullptr; // unused where there are pieces
    std::vector<iovec> m_pieces;
    const bool m_inPieces = false;
    std::size_t m_length = 0;
};

/// Sends all of it, waits as long as that takes, and goes on after interruptions.
/// @return its length, or what the system call returned that brought nothing (errno)
ssize_t sendAll(const Descriptor& socket, const Message& message);

/// A queue of threads, of which one has its turn at a time, in the order in which they came.
class Turns {
public:
    /// A place in the queue, from its constructor to its destructor. It may pass from thread to thread.
    class Place {
    public:
        explicit Place(Turns& turns);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        bool isFirst() const;
        void waitUntilFirst();

    private:
        Turns& m_turns;
        Place* m_next = nullptr; // touched with the queue's mutex held
    };

    bool isEmpty() const;

private:
    mutable Mutex m_mutex; // taken last
    Condition m_changed;
    Place* m_first GUARDED_BY(m_mutex) = nullptr;
};

/// Has the system ask a silent peer whether it is still there, from 5 seconds of silence on.
void enableKeepAlive(const Descriptor& socket);

/// Whether nothing at all has come from the peer for 15 seconds although it was asked: its machine is gone,
/// or cut off. A peer that only does not read answers.
bool isPeerGone(const Descriptor& socket);

/// Ends a connection for both sides at once and wakes every thread that is blocked on it. The number stays
/// taken until its owners let go of it.
inline void endStream(const Descriptor& socket) noexcept {
    if (socket.isOpen())
        ::shutdown(socket.get(), SHUT_RDWR); // fails where there is no connection: nothing to end
}

} // namespace net::detail
