/// @file
/// Descriptors that are waited for together.
#pragma once

#include <RadarWatch/wakeup.h>

#include <UdpSocket/base/socket.h>

#include <sys/epoll.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace radar::detail {

/// An epoll set whose members are readable, by numbers of their own. Any thread.
class EpollSet {
public:
    /// @throws std::system_error
    EpollSet() : m_set(net::detail::ownSocket(::epoll_create1(EPOLL_CLOEXEC))) {
        if (!m_set.isOpen())
            throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }

    int descriptor() const { return m_set.get(); }

    /// @return false when the system refuses (errno)
    bool add(int descriptor, std::uint64_t number) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = number;
        return ::epoll_ctl(m_set.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
    }
    /// Not left to the closing: a forked child may still have the descriptor.
    void remove(int descriptor) noexcept { ::epoll_ctl(m_set.get(), EPOLL_CTL_DEL, descriptor, nullptr); }

private:
    net::detail::Descriptor m_set;
};

} // namespace radar::detail
