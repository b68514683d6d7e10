#include <UdpSocket/base/command.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace net::detail {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kShortestLook = 1ms; // at a running command, and from there on twice as long each time
constexpr auto kLongestLook = 16ms;
constexpr auto kKillTime = 200ms; // a killed command that is not ours to kill (sudo) is left behind

std::string quiet(const std::string& command) {
    return command + " > /dev/null 2>&1";
}

bool succeeded(const std::string& command, int status) {
    if (status != 0)
        return false;
    std::printf("@%s\r\n", command.c_str());
    return true;
}

/// Starts a shell in a session of its own, so that nothing of it can ask on our terminal.
/// @return its process id, -1 where the system refuses
pid_t startShell(const std::string& line) {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    if (::posix_spawnattr_init(&attributes) != 0)
        return -1;
    if (::posix_spawn_file_actions_init(&actions) != 0) {
        ::posix_spawnattr_destroy(&attributes);
        return -1;
    }
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    char shell[] = "sh";
    char option[] = "-c";
    std::string text = line;
    char* const arguments[] = {shell, option, text.data(), nullptr};
    pid_t process = -1;
    const bool started =
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                                    POSIX_SPAWN_SETSIGDEF) == 0 &&
        ::posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
        ::posix_spawnattr_setsigdefault(&attributes, &defaults) == 0 &&
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
        ::posix_spawn(&process, "/bin/sh", &actions, &attributes, arguments, environ) == 0;
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    return started ? process : -1;
}

/// @return the status of a process that ends by @p deadline, as wait has it; nothing of one that runs on
template <class GoOn>
std::optional<int> awaitEnd(pid_t process, Clock::time_point deadline, GoOn goOn) {
    for (auto look = std::chrono::milliseconds(kShortestLook);;
         look = std::min(look * 2, kLongestLook + 0ms)) {
        int status = 0;
        const pid_t ended = ::waitpid(process, &status, WNOHANG);
        if (ended == process)
            return status;
        if (ended == -1 && errno != EINTR)
            return -1; // the program around us has taken it: nobody knows how it ended
        if (Clock::now() >= deadline || !goOn(look))
            return std::nullopt;
    }
}

} // namespace

bool runCommand(const std::string& command, bool show) {
    return succeeded(command, std::system((show ? command : quiet(command)).c_str()));
}

bool runCommandWithin(const std::string& command, std::chrono::milliseconds limit, Pause& ending) {
    const pid_t process = startShell(quiet(command));
    if (process == -1)
        return false;
    const auto sleep = [&](std::chrono::milliseconds time) { return ending.sleep(time); };
    if (const auto status = awaitEnd(process, Clock::now() + limit, sleep))
        return succeeded(command, *status);
    ::kill(-process, SIGKILL); // the whole session, the shell's children included
    awaitEnd(process, Clock::now() + kKillTime, [](std::chrono::milliseconds time) {
        std::this_thread::sleep_for(time);
        return true;
    });
    return false;
}

bool isDottedQuad(const std::string& text) {
    in_addr address;
    return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isInterfaceName(const std::string& text) {
    constexpr std::string_view allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-:@";
    return !text.empty() && text.find_first_not_of(allowed) == std::string::npos;
}

} // namespace net::detail
