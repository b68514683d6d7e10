#include "private_network.h"

#include <UdpSocket/base/descriptor.h>

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace lab {

namespace {

using net::detail::Descriptor;

[[noreturn]] void exitNotPermitted(const char* what) {
    std::fprintf(stderr,
                 "lab: cannot make a private network (%s: %s): run as root, or allow user namespaces "
                 "(sysctl kernel.unprivileged_userns_clone=1 user.max_user_namespaces=1000)\n",
                 what, std::strerror(errno));
    std::_Exit(kNotPermitted);
}

void require(bool done, const char* what) {
    if (!done)
        exitNotPermitted(what);
}

void writeFile(const char* path, const std::string& text) {
    const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
    require(file.isOpen(), path);
    require(::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
}

void unshareNamespaces() {
    constexpr int network = CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID;
    if (::unshare(network) == 0)
        return;
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    require(::unshare(network | CLONE_NEWUSER) == 0, "unshare");
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + user + " 1");
    writeFile("/proc/self/gid_map", "0 " + group + " 1");
}

void mountFileSystems() {
    require(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
    require(::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0, "mount /proc");
    require(::mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0, "mount /sys");
    require(::mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") == 0, "mount /run");
}

void raiseLoopback() {
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    require(socket.isOpen(), "socket");
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_MULTICAST;
    require(::ioctl(socket.get(), SIOCSIFFLAGS, &request) == 0, "loopback");
}

volatile pid_t s_child = -1; // the process that signals are forwarded to

/// Waits for the child, forwards signals to it, and exits with its status.
[[noreturn]] void superviseAndExit(pid_t child) {
    s_child = child;
    struct sigaction forward {};
    forward.sa_flags = SA_SIGINFO;
    forward.sa_sigaction = [](int number, siginfo_t* info, void*) {
        if (info->si_code != SI_KERNEL) // the terminal has sent it to the child already
            ::kill(s_child, number);
    };
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(number, &forward, nullptr);
    int status = 0;
    pid_t ended;
    do { // the first process of a namespace is the parent of its orphans, too
        ended = ::wait(&status);
    } while (ended != child && (ended != -1 || errno == EINTR));
    std::_Exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

pid_t forkThatDiesWithParent() {
    std::fflush(nullptr);
    const Descriptor parent(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    require(parent.isOpen(), "pidfd_open");
    const pid_t child = ::fork();
    require(child != -1, "fork");
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        pollfd ended{parent.get(), POLLIN, 0};
        if (::poll(&ended, 1, 0) != 0) // the parent ended before the prctl
            std::_Exit(128 + SIGKILL);
    }
    return child;
}

} // namespace

void enterPrivateNetwork() {
    unshareNamespaces();
    if (const pid_t init = forkThatDiesWithParent(); init != 0)
        superviseAndExit(init);
    mountFileSystems();
    raiseLoopback();
    if (const pid_t worker = forkThatDiesWithParent(); worker != 0)
        superviseAndExit(worker);
}

} // namespace lab
