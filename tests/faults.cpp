#include "faults.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <mutex>

namespace {

struct Plan {
    std::string call;
    int code = 0;
    int first = 0;
    int count = 0;
    int calls = 0;
    bool hit = false;
};

std::mutex s_mutex; // guards s_plan
Plan s_plan;

bool shouldFail(const std::string& call) {
    std::lock_guard lock(s_mutex);
    if (call != s_plan.call || ++s_plan.calls < s_plan.first || s_plan.calls >= s_plan.first + s_plan.count)
        return false;
    s_plan.hit = true;
    errno = s_plan.code;
    return true;
}

int failure() {
    return errno == 0 ? 0 : -1;
}

std::string optionName(int level, int option) {
    static constexpr struct {
        int level;
        int option;
        const char* name;
    } kOptions[] = {
        {SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR"},
        {SOL_SOCKET, SO_BROADCAST, "SO_BROADCAST"},
        {SOL_SOCKET, SO_RCVBUF, "SO_RCVBUF"},
        {SOL_SOCKET, SO_RCVTIMEO, "SO_RCVTIMEO"},
        {SOL_SOCKET, SO_SNDTIMEO, "SO_SNDTIMEO"},
        {SOL_SOCKET, SO_BINDTODEVICE, "SO_BINDTODEVICE"},
        {IPPROTO_IP, IP_ADD_MEMBERSHIP, "IP_ADD_MEMBERSHIP"},
        {IPPROTO_IP, IP_MULTICAST_IF, "IP_MULTICAST_IF"},
        {IPPROTO_IP, IP_MULTICAST_LOOP, "IP_MULTICAST_LOOP"},
        {IPPROTO_IP, IP_MULTICAST_ALL, "IP_MULTICAST_ALL"},
    };
    for (const auto& [known, number, name] : kOptions)
        if (known == level && number == option)
            return name;
    return "another option";
}

long entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

} // namespace

#define WRAP(result, name, parameters, arguments)                                                            \
    extern "C" result __real_##name parameters;                                                              \
    extern "C" result __wrap_##name parameters {                                                             \
        return shouldFail(#name) ? failure() : __real_##name arguments;                                      \
    }

WRAP(int, socket, (int family, int type, int protocol), (family, type, protocol))
WRAP(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
WRAP(int, listen, (int fd, int waiting), (fd, waiting))
WRAP(int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags), (fd, address, length, flags))
WRAP(int, connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length))
WRAP(ssize_t, send, (int fd, const void* data, size_t length, int flags), (fd, data, length, flags))
WRAP(ssize_t, sendto,
     (int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size),
     (fd, data, length, flags, address, size))
WRAP(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
WRAP(int, sendmmsg, (int fd, mmsghdr* messages, unsigned int count, int flags), (fd, messages, count, flags))
WRAP(ssize_t, recv, (int fd, void* data, size_t length, int flags), (fd, data, length, flags))
WRAP(ssize_t, recvfrom, (int fd, void* data, size_t length, int flags, sockaddr* address, socklen_t* size),
     (fd, data, length, flags, address, size))
WRAP(int, poll, (pollfd * polled, nfds_t count, int timeout), (polled, count, timeout))
WRAP(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* length),
     (fd, level, option, value, length))
WRAP(int, getifaddrs, (ifaddrs * *list), (list))
WRAP(int, ioctl, (int fd, unsigned long request, void* value), (fd, request, value))
WRAP(int, fcntl, (int fd, int command, long value), (fd, command, value))
WRAP(int, system, (const char* command), (command))

extern "C" int __real_posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                                  const posix_spawnattr_t* attributes, char* const* arguments,
                                  char* const* environment);
extern "C" int __wrap_posix_spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                                  const posix_spawnattr_t* attributes, char* const* arguments,
                                  char* const* environment) {
    return shouldFail("posix_spawn")
               ? errno
               : __real_posix_spawn(process, path, actions, attributes, arguments, environment);
}

extern "C" int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t length);
extern "C" int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    return shouldFail(optionName(level, option)) ? failure()
                                                 : __real_setsockopt(fd, level, option, value, length);
}

// Called by the standard library, which --wrap does not change; this definition is found before the real one.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* attributes,
                                                                     void* (*body)(void*),
                                                                     void* argument) noexcept {
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return shouldFail("pthread_create") ? errno : real(thread, attributes, body, argument);
}

Fault::Fault(const std::string& call, int code, int first, int count) {
    std::lock_guard lock(s_mutex);
    s_plan = {call, code, first, count};
}

Fault::~Fault() {
    std::lock_guard lock(s_mutex);
    s_plan = {};
}

bool Fault::hit() const {
    std::lock_guard lock(s_mutex);
    return s_plan.hit;
}

ProcessResources ProcessResources::now() {
    return {entries("/proc/self/fd"), entries("/proc/self/task")};
}
