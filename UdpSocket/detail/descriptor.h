/// @file
/// Ownership of a file descriptor.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <sys/socket.h>

#include <utility>

namespace net::detail {

/// Owns one descriptor, or none (-1). Closes it exactly once; close is never retried, since the number is
/// free again even when close reports an interruption.
class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int number) noexcept : m_number(number) {}
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        other.reset();
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const noexcept { return m_number; }
    bool isOpen() const noexcept { return m_number != -1; }
    void reset() noexcept {
        if (m_number != -1)
            ::close(std::exchange(m_number, -1));
    }

    /// Makes a thread that blocks in a receive call on this socket come back at once with a result of 0.
    void wakeReader() const noexcept {
        if (m_number != -1)
            ::shutdown(m_number,
                       SHUT_RD); // an unconnected UDP socket answers ENOTCONN and wakes all the same
    }

private:
    int m_number = -1;
};

/// Owns a new socket, under another number where it has one of the standard streams: in a program that was
/// started without them, what is printed would be sent to a peer.
inline Descriptor ownSocket(int number) {
    Descriptor socket(number);
    if (number < 0 || number > STDERR_FILENO)
        return socket;
    return Descriptor(::fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// An IPv4 socket that commands run by the library do not inherit; not open when the system refuses (errno).
inline Descriptor openSocket(int type, int protocol = 0) {
    return ownSocket(::socket(AF_INET, type | SOCK_CLOEXEC, protocol));
}

/// setsockopt with the option's own type. @return whether the system took it (else errno)
template <class Value>
bool setOption(const Descriptor& descriptor, int level, int option, const Value& value) {
    return ::setsockopt(descriptor.get(), level, option, &value, sizeof value) == 0;
}

} // namespace net::detail
