/// @file
/// Sockets for looking: nothing blocks, and what the system refuses can be told.
#pragma once

#include "observation.h"

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace doctor {

/// Owns a socket; not open when the system refused it.
class Socket {
public:
    Socket() = default;
    Socket(int family, int type, int protocol)
        : m_number(::socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol)) {}
    ~Socket() { reset(); }
    Socket(Socket&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }

    int get() const { return m_number; }
    bool isOpen() const { return m_number != -1; }
    void reset() {
        if (isOpen())
            ::close(std::exchange(m_number, -1));
    }
    template <class Value>
    bool set(int level, int option, const Value& value) const {
        return ::setsockopt(m_number, level, option, &value, sizeof value) == 0;
    }
    bool bind(unsigned int ip, unsigned short port) const;

private:
    int m_number = -1;
};

struct Datagram {
    std::string bytes;
    sockaddr_storage from;
    Seconds received; ///< by the kernel, wall clock
};

Seconds wallClock();

/// The next datagram that waits; false when there is none.
bool receive(const Socket& socket, Datagram& datagram);

/// Packets of IGMP, and of UDP to the groups of the library, from their IP header on, before the kernel
/// judges them. Not open without privileges.
Socket openWire(int interfaceIndex);

} // namespace doctor
