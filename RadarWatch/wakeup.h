/// @file
/// A descriptor by which one thread makes another one's poll() return.
#pragma once

#include <UdpSocket/base/socket.h>

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace radar::detail {

/// Readable from set() to clear(). Any thread.
class Wakeup {
public:
    /// @throws std::system_error
    Wakeup() : m_event(net::detail::ownSocket(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {
        if (!m_event.isOpen())
            throw std::system_error(errno, std::generic_category(), "eventfd");
    }

    int descriptor() const { return m_event.get(); }
    void set() noexcept { ::eventfd_write(m_event.get(), 1); } // neither can fail, nor wait
    void clear() noexcept {
        eventfd_t count;
        ::eventfd_read(m_event.get(), &count); // refused where it was not set
    }

private:
    net::detail::Descriptor m_event;
};

} // namespace radar::detail
