/// @file
/// Makes system calls of the library fail. The linker replaces them by functions of this file (--wrap).
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

/// Open descriptors and running threads of the process.
struct ProcessResources {
    long descriptors;
    long threads;
    static ProcessResources now();
    bool operator==(const ProcessResources&) const = default;
};
