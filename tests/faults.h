/// @file
/// Makes system calls of the library fail. A program that links faults.cpp has its own definitions of them in
/// the place of the C library's, which they call.
#pragma once

#include <cstddef>
#include <string>

/// While the object lives, calls fail. There can be one at a time.
class Fault {
public:
    /// Calls of one name fail.
    /// @param call  the function; for setsockopt the option, "SO_RCVBUF"
    /// @param code  what errno is set to; 0: the call returns 0 instead
    /// @param first the first call that fails, counted from 1
    /// @param count how many fail from there on
    Fault(const std::string& call, int code, int first = 1, int count = 1);
    /// One call fails, whatever it is. Of the calls from one place in the code the first few count.
    /// @param number counted from 1
    /// @param reason which of the errnos that a manual page gives for the call, counted from 0; none: it
    /// succeeds
    Fault(int number, std::size_t reason);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    /// Whether a call has failed.
    bool hit() const;

    /// The call of that number.
    struct Call {
        std::string name;        ///< empty: there are not so many
        int code = 0;            ///< what errno was set to; 0: it has succeeded
        std::size_t reasons = 0; ///< how many errnos there are for it
    };
    Call call() const;
};

/// While it is not 0, this thread's calls neither fail nor count: for what a test does itself.
inline thread_local int soundCalls = 0;

/// Open descriptors and running threads of the process.
struct ProcessResources {
    long descriptors;
    long threads;
    static ProcessResources now();
    bool operator==(const ProcessResources&) const = default;
};
