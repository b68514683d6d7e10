/// @file
/// A real process in the network of whoever starts it.
#pragma once

#include <UdpSocket/base/descriptor.h>

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace lab {

/// Gives the calling thread a mount namespace of its own with the /sys of the network that it is in.
/// @return false when the system refuses (errno). Allocates nothing and takes no lock
bool mountOwnSys();

/// The path of a program in the directory that the running one is in.
std::string programBeside(const std::string& name);

/// A running program. It sees the network of the thread that starts it, with a /sys of that network.
///
/// Its output is captured, or goes to a file. It leads a process group of its own, and
/// processes that it started in that group end with it. One thread at a time may use an object; reading the
/// output is the exception, it may overlap. Destruction stops the process. When the private network ends, so
/// does the process.
class Process {
public:
    struct Plan {
        std::vector<std::string> command;
        std::string outputFile{}; ///< empty: the output is captured
        std::string errorFile{};  ///< standard error; empty: it goes where standard output goes
        bool foreground = false;  ///< keeps the caller's terminal, process group and standard streams instead
    };

    /// Starts the program, searched in PATH.
    /// @throws std::system_error when the system has no room for it; a program that is not there ends with
    /// 127
    explicit Process(const Plan& plan);
    Process(Process&& other) noexcept;
    Process& operator=(Process&&) = delete;
    ~Process();

    pid_t pid() const { return m_pid; }
    /// To be polled: readable when the process has ended.
    int handle() const { return m_handle.get(); }

    /// Sends a signal to the process alone.
    void signal(int number) const;

    /// Waits for the end of the process.
    /// @return its exit status, or 128 + the signal that ended it; nothing when it runs on
    std::optional<int> wait(std::chrono::milliseconds timeout);

    /// SIGTERM, and SIGKILL when the process has not ended by @p patience. @return as wait()
    int stop(std::chrono::milliseconds patience = std::chrono::seconds(10));

    /// The next line of captured output, without its end; nothing when none came in time or none will.
    std::optional<std::string> nextLine(std::chrono::milliseconds timeout);
    /// Skips lines up to the first one that contains @p text. @return as nextLine()
    std::optional<std::string> lineWith(const std::string& text, std::chrono::milliseconds timeout);
    /// All captured output so far; complete after wait() or stop() has returned a status.
    std::string output() const;

private:
    struct Output;
    void signalAll(int number) const;

    pid_t m_pid = -1;
    bool m_foreground = false;
    net::detail::Descriptor m_handle; // not open in an object that was moved from
    std::optional<int> m_status;
    std::unique_ptr<Output> m_output;
    std::thread m_reader; // ends when the last process of the group has closed the pipe
};

} // namespace lab
