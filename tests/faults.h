/// @file
/// System calls that fail when a test says so. The linker puts them in the place of those that the library
/// makes.
#pragma once

#include <string>

/// While the object lives, calls of one name fail. There can be one at a time.
class Fault {
public:
    /// @param call  the function; for setsockopt the option, "SO_RCVBUF"
    /// @param code  what errno is set to; 0: the call returns 0 instead
    /// @param first the first call that fails, counted from 1
    /// @param count how many fail from there on
    Fault(const std::string& call, int code, int first = 1, int count = 1);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    static constexpr int kAll = 1 << 30;

    /// Whether a call has failed.
    bool hit() const;
};

/// Descriptors and threads of the process.
struct Holdings {
    long descriptors;
    long threads;
    static Holdings now();
    bool operator==(const Holdings&) const = default;
};
