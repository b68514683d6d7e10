#include "process.h"

#include <UdpSocket/base/thread.h>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>

namespace lab {

namespace {

using Clock = std::chrono::steady_clock;
using net::detail::Descriptor;
using std::chrono::milliseconds;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Descriptor openFile(const std::string& path, int flags) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0644));
    if (!file.isOpen())
        fail(path.c_str());
    return file;
}

/// What the child needs between fork and exec, where it may neither allocate nor lock.
struct Launch {
    std::vector<char*> arguments; // ends with a null
    int input = -1;
    int output = -1;
    int errors = -1;
    bool foreground = false;
};

[[noreturn]] void failInChild(const char* what) {
    const char* const parts[] = {"lab: cannot start ", what, ": ", ::strerrordesc_np(errno), "\n"};
    for (const char* part : parts)
        if (::write(STDERR_FILENO, part, std::char_traits<char>::length(part)) < 0)
            break;
    ::_exit(127);
}

[[noreturn]] void execProgram(const Launch& launch) {
    if (!launch.foreground) {
        ::setpgid(0, 0);
        if (::dup2(launch.input, STDIN_FILENO) == -1 || ::dup2(launch.output, STDOUT_FILENO) == -1 ||
            ::dup2(launch.errors, STDERR_FILENO) == -1)
            failInChild("streams");
    }
    sigset_t none; // neither a blocked nor an ignored signal is inherited
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
        ::signal(number, SIG_DFL);
    if (!mountOwnSys())
        failInChild("/sys");
    ::execvp(launch.arguments[0], launch.arguments.data());
    failInChild(launch.arguments[0]);
}

bool waitReadable(int descriptor, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        pollfd entry{descriptor, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

} // namespace

bool mountOwnSys() {
    // Replaces the mounted one: "ip netns exec" unmounts one layer, too, and must not find an older one
    // beneath.
    return ::unshare(CLONE_NEWNS) == 0 && ::umount2("/sys", MNT_DETACH) == 0 &&
           ::mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0;
}

std::string programBeside(const std::string& name) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
}

struct Process::Output {
    mutable std::mutex mutex; // guards the rest
    std::condition_variable changed;
    std::string text;
    size_t taken = 0; // how much of the text nextLine() has handed out
    bool ended = false;

    void readFrom(const Descriptor& pipe) {
        char buffer[4096];
        ssize_t count;
        while ((count = ::read(pipe.get(), buffer, sizeof buffer)) > 0) {
            std::lock_guard lock(mutex);
            text.append(buffer, static_cast<size_t>(count));
            changed.notify_all();
        }
        std::lock_guard lock(mutex);
        ended = true;
        changed.notify_all();
    }
};

Process::Process(const Plan& plan) : m_foreground(plan.foreground) {
    Launch launch;
    for (const std::string& argument : plan.command)
        launch.arguments.push_back(const_cast<char*>(argument.c_str()));
    launch.arguments.push_back(nullptr);
    launch.foreground = plan.foreground;

    constexpr int append = O_WRONLY | O_CREAT | O_APPEND;
    Descriptor input;
    Descriptor output;
    Descriptor errors;
    Descriptor captured;
    if (!plan.foreground) {
        input = openFile("/dev/null", O_RDONLY);
        if (plan.outputFile.empty()) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) == -1)
                fail("pipe");
            captured = Descriptor(ends[0]);
            output = Descriptor(ends[1]);
        } else {
            output = openFile(plan.outputFile, append);
        }
        if (!plan.errorFile.empty())
            errors = openFile(plan.errorFile, append);
        launch.input = input.get();
        launch.output = output.get();
        launch.errors = errors.isOpen() ? errors.get() : output.get();
    }

    m_pid = ::fork();
    if (m_pid == -1)
        fail("fork");
    if (m_pid == 0)
        execProgram(launch);
    if (!plan.foreground)
        ::setpgid(m_pid, m_pid); // here as well as in the child: whichever runs first
    m_handle = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0)));
    if (!m_handle.isOpen()) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        fail("pidfd_open");
    }
    if (captured.isOpen()) {
        m_output = std::make_unique<Output>();
        m_reader = net::detail::startThread(
            "lab-reader", [output = m_output.get(), pipe = std::move(captured)] { output->readFrom(pipe); });
    }
}

Process::Process(Process&& other) noexcept = default;

Process::~Process() {
    if (m_handle.isOpen())
        stop();
}

void Process::signal(int number) const {
    if (!m_status)
        ::kill(m_pid, number);
}

void Process::signalAll(int number) const {
    ::kill(m_foreground ? m_pid : -m_pid, number);
}

std::optional<int> Process::wait(milliseconds timeout) {
    if (m_status || !waitReadable(m_handle.get(), Clock::now() + timeout))
        return m_status;
    if (!m_foreground)
        signalAll(
            SIGKILL); // processes that it started; the group's number is not free before it is waited for
    int status = 0;
    if (::waitpid(m_pid, &status, 0) == -1)
        fail("waitpid");
    m_status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    if (m_reader.joinable())
        m_reader.join();
    return m_status;
}

int Process::stop(milliseconds patience) {
    if (!m_status)
        signalAll(SIGTERM);
    if (const auto status = wait(patience))
        return *status;
    signalAll(SIGKILL);
    return wait(std::chrono::hours(1)).value();
}

std::optional<std::string> Process::nextLine(milliseconds timeout) {
    std::unique_lock lock(m_output->mutex);
    size_t end = std::string::npos;
    const auto lineIsThere = [&] {
        end = m_output->text.find('\n', m_output->taken);
        return end != std::string::npos || m_output->ended;
    };
    if (!m_output->changed.wait_for(lock, timeout, lineIsThere))
        return std::nullopt;
    if (end == std::string::npos && m_output->taken == m_output->text.size())
        return std::nullopt;
    std::string line = m_output->text.substr(m_output->taken, end - m_output->taken);
    m_output->taken = end == std::string::npos ? m_output->text.size() : end + 1;
    return line;
}

std::optional<std::string> Process::lineWith(const std::string& text, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        auto line = nextLine(std::max(left, milliseconds(0)));
        if (!line || line->find(text) != std::string::npos)
            return line;
    }
}

std::string Process::output() const {
    std::lock_guard lock(m_output->mutex);
    return m_output->text;
}

} // namespace lab
