/// @file
/// Ownership of a file descriptor.
#pragma once

#include <unistd.h>

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

private:
    int m_number = -1;
};

} // namespace net::detail
