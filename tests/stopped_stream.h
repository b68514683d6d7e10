/// @file
/// Output that stands still.
#pragma once

#include "test.h"

/// A standard stream behind a full pipe, as behind Ctrl-S, until it fails instead.
class StoppedStream {
public:
    explicit StoppedStream(std::FILE* stream) : m_number(::fileno(stream)) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        const std::string much(4096, 'x');
        while (::write(ends[1], much.data(), much.size()) > 0) {
        }
        ::fcntl(ends[1], F_SETFL, 0);
        std::fflush(stream);
        m_saved = ::fcntl(m_number, F_DUPFD_CLOEXEC, 3);
        ::dup2(ends[1], m_number);
        ::close(ends[1]);
        m_reader = ends[0];
        std::setvbuf(stream, nullptr, _IONBF, 0);
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~StoppedStream() {
        ::dup2(m_saved, m_number);
        ::close(m_saved);
    }
    StoppedStream(const StoppedStream&) = delete;
    StoppedStream& operator=(const StoppedStream&) = delete;

    /// Who prints now goes on.
    void fail() const { ::close(m_reader); }

private:
    const int m_number;
    int m_saved;
    int m_reader;
};
