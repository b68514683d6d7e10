#include "faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr int kOfOnePlace = 3; // calls that count

struct Plan {
    std::string name; // empty: any call
    int code = 0;
    int first = 0;
    int count = 0;
    std::size_t reason = 0; // of any call
    int calls = 0;
    bool hit = false;
    Fault::Call call{};
    std::map<std::pair<std::string_view, const void*>, int> places{};
};

std::mutex s_mutex; // guards s_plan
Plan s_plan;
std::atomic<bool> s_armed = false;

/// What their manual pages name, and a machine does now and then. What waits can also be interrupted.
const std::vector<int>& reasonsOf(std::string_view name) {
    static const std::map<std::string_view, std::vector<int>> reasons = {
        {"accept4", {EMFILE, ENFILE, ENOBUFS, ENOMEM, ECONNABORTED, EPERM, EAGAIN, EINTR}},
        {"bind", {EADDRINUSE, EADDRNOTAVAIL}},
        {"close", {EINTR, EIO}},
        {"connect", {ECONNREFUSED, ENETUNREACH, ETIMEDOUT, EADDRNOTAVAIL, EINTR}},
        {"epoll_create1", {EMFILE, ENFILE, ENOMEM}},
        {"epoll_ctl", {ENOMEM, ENOSPC}},
        {"epoll_wait", {EINTR}},
        {"eventfd", {EMFILE, ENFILE, ENOMEM, ENODEV}},
        {"fcntl", {EMFILE, EPERM}},
        {"fsync", {EIO, ENOSPC, EDQUOT}},
        {"ftruncate", {EIO}},
        {"getifaddrs", {EMFILE, ENOBUFS, ENOMEM}},
        {"getsockname", {ENOBUFS}},
        {"getsockopt", {ENOBUFS}},
        {"if_indextoname", {ENXIO, EMFILE}},
        {"if_nametoindex", {ENODEV, EMFILE}},
        {"ioctl", {ENODEV}},
        {"listen", {EADDRINUSE}},
        {"open", {EMFILE, ENFILE, ENOMEM, EACCES, EINTR}},
        {"poll", {ENOMEM, EINTR}},
        {"pread", {EIO, EINTR}},
        {"posix_spawn", {EAGAIN, ENOMEM}},
        {"pthread_create", {EAGAIN}},
        {"read", {EIO, EINTR}},
        {"recv", {ENOMEM, ECONNREFUSED, ECONNRESET, ETIMEDOUT, EAGAIN, EINTR}},
        {"recvfrom", {ENOMEM, ECONNREFUSED, EAGAIN, EINTR}},
        {"recvmmsg", {ENOMEM, ECONNREFUSED, EAGAIN, EINTR}},
        {"recvmsg", {ENOMEM, EAGAIN, EINTR}},
        {"send", {ENOBUFS, ENOMEM, ECONNRESET, EPIPE, EINTR}},
        {"sendmmsg", {ENOBUFS, ENOMEM, EPERM, ENETUNREACH, ENODEV}},
        {"sendmsg", {ENOBUFS, ENOMEM, ECONNRESET, EPIPE, EINTR}},
        {"sendto", {ENOBUFS, ENOMEM, EPERM, ENETUNREACH, ENODEV}},
        {"setsockopt", {ENOBUFS, EPERM, ENODEV}},
        {"shutdown", {ENOTCONN}},
        {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM}},
        {"socketpair", {EMFILE, ENFILE, ENOBUFS}},
        {"stat", {ENOENT, ENOMEM}},
        {"system", {EAGAIN, ENOMEM}},
        {"waitpid", {EINTR}},
        {"write", {ENOSPC, EIO, EINTR}},
    };
    return reasons.at(name);
}

bool isMeant(const char* function, const char* name, const void* place) {
    if (!s_plan.name.empty())
        return name == s_plan.name && ++s_plan.calls >= s_plan.first &&
               s_plan.calls < s_plan.first + s_plan.count;
    if (++s_plan.places[{name, place}] > kOfOnePlace || ++s_plan.calls != s_plan.first)
        return false;
    const std::vector<int>& reasons = reasonsOf(function);
    if (s_plan.reason < reasons.size())
        s_plan.code = reasons[s_plan.reason];
    s_plan.call = {name, s_plan.code, reasons.size()};
    return s_plan.code != 0;
}

/// @param place in the code that calls
/// @param name  of the call where it has one of its own, by what the function does in it
bool fails(const char* function, const void* place, const char* name = nullptr) {
    if (!s_armed || soundCalls > 0)
        return false;
    const std::lock_guard lock(s_mutex);
    if (!isMeant(function, name != nullptr ? name : function, place))
        return false;
    s_plan.hit = true;
    errno = s_plan.code;
    return true;
}

/// What a failed call returns; errno is set.
template <class Result>
Result failure() {
    if constexpr (std::is_signed_v<Result>)
        return errno == 0 ? 0 : -1;
    else
        return {}; // a number or pointer of which zero is none
}

const char* optionName(int level, int option) {
    static constexpr std::pair<int, const char*> kNames[] = {
        {SO_REUSEADDR, "SO_REUSEADDR"}, {SO_BROADCAST, "SO_BROADCAST"}, {SO_RCVBUF, "SO_RCVBUF"},
        {SO_RCVTIMEO, "SO_RCVTIMEO"},   {SO_SNDTIMEO, "SO_SNDTIMEO"},   {SO_BINDTODEVICE, "SO_BINDTODEVICE"},
    };
    if (level == IPPROTO_IP && option != IP_DROP_MEMBERSHIP)
        return "setsockopt";
    for (const auto& [number, name] : kNames)
        if (level == SOL_SOCKET && number == option)
            return name;
    return "SO_KEEPALIVE and the like";
}

/// @return null: a socket that data goes through
const char* socketName(int family, int type, int protocol) {
    if (family == AF_NETLINK)
        return "netlink socket";
    return (type & ~SOCK_CLOEXEC) == SOCK_DGRAM && protocol == 0 ? "socket that asks for a route" : nullptr;
}

long entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

/// The definition behind the one of this file.
template <class Function>
Function* realOf(Function*, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

#define REAL(name) static const auto real = realOf(&(name), #name)
#define PLACE __builtin_return_address(0)
#define REPLACEMENT extern "C" __attribute__((visibility("default")))

// What is behind the arguments is the name of the call, where it has one of its own.
#define REPLACE(result, name, parameters, exceptions, arguments, ...)                                        \
    REPLACEMENT result name parameters exceptions {                                                          \
        REAL(name);                                                                                          \
        return fails(#name, PLACE __VA_OPT__(, ) __VA_ARGS__) ? failure<result>() : real arguments;          \
    }

REPLACE(int, socketpair, (int family, int type, int protocol, int* ends), noexcept,
        (family, type, protocol, ends))
REPLACE(int, listen, (int fd, int waiting), noexcept, (fd, waiting))
REPLACE(int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags), ,
        (fd, address, length, flags))
REPLACE(int, connect, (int fd, const sockaddr* address, socklen_t length), , (fd, address, length))
REPLACE(int, getsockname, (int fd, sockaddr* address, socklen_t* length), noexcept, (fd, address, length))
REPLACE(ssize_t, send, (int fd, const void* data, size_t length, int flags), , (fd, data, length, flags))
REPLACE(ssize_t, sendto,
        (int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size), ,
        (fd, data, length, flags, address, size))
REPLACE(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), , (fd, message, flags))
REPLACE(int, sendmmsg, (int fd, mmsghdr* messages, unsigned int count, int flags), ,
        (fd, messages, count, flags))
REPLACE(ssize_t, recv, (int fd, void* data, size_t length, int flags), , (fd, data, length, flags))
REPLACE(ssize_t, recvfrom, (int fd, void* data, size_t length, int flags, sockaddr* address, socklen_t* size),
        , (fd, data, length, flags, address, size))
REPLACE(int, recvmmsg, (int fd, mmsghdr* messages, unsigned int count, int flags, timespec* timeout), ,
        (fd, messages, count, flags, timeout))
REPLACE(int, poll, (pollfd * polled, nfds_t count, int timeout), , (polled, count, timeout))
REPLACE(int, epoll_create1, (int flags), noexcept, (flags))
REPLACE(int, epoll_wait, (int set, epoll_event* events, int count, int timeout), ,
        (set, events, count, timeout))
REPLACE(int, eventfd, (unsigned int value, int flags), noexcept, (value, flags))
REPLACE(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* length), noexcept,
        (fd, level, option, value, length))
REPLACE(int, getifaddrs, (ifaddrs * *list), noexcept, (list))
REPLACE(unsigned int, if_nametoindex, (const char* name), noexcept, (name))
REPLACE(char*, if_indextoname, (unsigned int index, char* name), noexcept, (index, name))
REPLACE(ssize_t, read, (int fd, void* data, size_t length), , (fd, data, length))
REPLACE(int, stat, (const char* path, struct stat* state), noexcept, (path, state))
REPLACE(int, fsync, (int fd), , (fd))
REPLACE(ssize_t, write, (int fd, const void* data, size_t length), , (fd, data, length))
REPLACE(ssize_t, recvmsg, (int fd, msghdr* message, int flags), , (fd, message, flags))
REPLACE(int, system, (const char* command), , (command))
REPLACE(pid_t, waitpid, (pid_t process, int* status, int options), , (process, status, options))
REPLACE(int, socket, (int family, int type, int protocol), noexcept, (family, type, protocol),
        socketName(family, type, protocol))
REPLACE(int, bind, (int fd, const sockaddr* address, socklen_t length), noexcept, (fd, address, length),
        address->sa_family == AF_NETLINK ? "netlink bind" : nullptr)
REPLACE(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t length), noexcept,
        (fd, level, option, value, length), optionName(level, option))
REPLACE(int, epoll_ctl, (int set, int operation, int fd, epoll_event* event), noexcept,
        (set, operation, fd, event), operation == EPOLL_CTL_DEL ? "EPOLL_CTL_DEL" : nullptr)

// off_t has 64 bits on every machine.
REPLACEMENT int ftruncate(int fd, off_t length) noexcept {
    static const auto real = realOf(&ftruncate, "ftruncate64");
    return fails("ftruncate", PLACE) ? -1 : real(fd, length);
}
REPLACEMENT ssize_t pread(int fd, void* data, size_t length, off_t from) {
    static const auto real = realOf(&pread, "pread64");
    return fails("pread", PLACE) ? -1 : real(fd, data, length, from);
}

// These report their errors by what they return.
REPLACEMENT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                               void* argument) noexcept {
    REAL(pthread_create);
    return fails("pthread_create", PLACE) ? errno : real(thread, attributes, body, argument);
}
REPLACEMENT int posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                            const posix_spawnattr_t* attributes, char* const* arguments,
                            char* const* environment) {
    REAL(posix_spawn);
    return fails("posix_spawn", PLACE) ? errno
                                       : real(process, path, actions, attributes, arguments, environment);
}

// These fail, and have done their work all the same.
REPLACEMENT int close(int fd) {
    REAL(close);
    const int result = real(fd);
    return fails("close", PLACE) ? -1 : result;
}
REPLACEMENT int shutdown(int fd, int how) noexcept {
    REAL(shutdown);
    const int result = real(fd, how);
    return fails("shutdown", PLACE) ? -1 : result;
}

// These take a last argument where there is one; none of the library's has more than a pointer's size.
#define REPLACE_VARIADIC(name, exceptions, type, first, second)                                              \
    REPLACEMENT int name(type first, second, ...) exceptions {                                               \
        REAL(name);                                                                                          \
        std::va_list more;                                                                                   \
        va_start(more, what);                                                                                \
        void* const last = va_arg(more, void*);                                                              \
        va_end(more);                                                                                        \
        return fails(#name, PLACE) ? failure<int>() : real(first, what, last);                               \
    }
REPLACE_VARIADIC(fcntl, , int, fd, int what)
REPLACE_VARIADIC(ioctl, noexcept, int, fd, unsigned long what)
REPLACE_VARIADIC(open, , const char*, path, int what)

Fault::Fault(const std::string& call, int code, int first, int count) {
    const std::lock_guard lock(s_mutex);
    s_plan = {call, code, first, count};
    s_armed = true;
}

Fault::Fault(int number, std::size_t reason) {
    const std::lock_guard lock(s_mutex);
    s_plan = {{}, 0, number, 1, reason};
    s_armed = true;
}

Fault::~Fault() {
    s_armed = false;
    const std::lock_guard lock(s_mutex);
    s_plan = {};
}

bool Fault::hit() const {
    const std::lock_guard lock(s_mutex);
    return s_plan.hit;
}

Fault::Call Fault::call() const {
    const std::lock_guard lock(s_mutex);
    return s_plan.call;
}

ProcessResources ProcessResources::now() {
    return {entries("/proc/self/fd"), entries("/proc/self/task")};
}
