/// @file
/// What systemd, or whoever else started the program so, is told: sd_notify(3) without its library.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <sys/un.h>

#include <chrono>
#include <string>

/// Speaks to the socket that NOTIFY_SOCKET names; where there is none, every operation does nothing. A
/// manager that cannot be reached costs a line on standard error.
///
/// Threads: all operations belong to one thread.
class ServiceManager {
public:
    ServiceManager();

    /// One datagram. @param state lines of "KEY=value": READY=1, STATUS=...
    void tell(const std::string& state) const;

    /// How often keepAlive() has to be called: half of what WATCHDOG_USEC allows. Negative: no need to.
    std::chrono::milliseconds period() const { return m_period; }
    /// Tells that the program is alive, not more often than needed.
    void keepAlive();

private:
    net::detail::Descriptor m_socket; // not open: nobody wants to know
    sockaddr_un m_address{};
    socklen_t m_length = 0; // of the address
    std::chrono::milliseconds m_period{-1};
    std::chrono::steady_clock::time_point m_due; // of the next sign of life
};
