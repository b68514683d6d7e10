/// @file
/// A bound on the lines of one kind that others can make the library print.
#pragma once

#include <UdpSocket/base/process.h>

#include <chrono>
#include <cstdio>

namespace net::detail {

/// Lets so many lines of a kind through in a second, and tells with the next one how many it has left out.
/// Any thread; needs no heap, and no lock is held while it prints. Meant for static storage.
class LineLimit {
public:
    static constexpr unsigned int kPerSecond = 1000;

    constexpr explicit LineLimit(unsigned int perSecond = kPerSecond) : m_perSecond(perSecond) {}

    /// Prints like fprintf, or counts the line as left out.
    void print(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 3, 4)));

    /// The same in two steps. @param leftOut since the line before
    bool admit(unsigned long& leftOut);
    static void tell(std::FILE* stream, unsigned long leftOut);

private:
    static StaticMutex s_mutex; // of all limits

    const unsigned int m_perSecond;
    std::chrono::steady_clock::time_point m_second GUARDED_BY(s_mutex){}; // when the one at hand began
    unsigned int m_printed GUARDED_BY(s_mutex) = 0;                       // in it
    unsigned long m_leftOut GUARDED_BY(s_mutex) = 0;                      // since the last line
};

} // namespace net::detail
