#include "each_failure.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

namespace {

constexpr int kAtOnce = 8;         // processes
constexpr int kMost = 200;         // calls or allocations of a scenario
constexpr unsigned kDeadline = 60; // seconds of a process

std::string networkOf(int place) {
    return "place" + std::to_string(place);
}

/// One network a process, since a port that is not to be shared is refused to the others.
void makeNetworks() {
    for (int i = 0; i < kAtOnce && !std::filesystem::exists("/run/netns/" + networkOf(i)); ++i) {
        const std::string network = networkOf(i);
        const std::string make = "ip netns add " + network + " && ip -n " + network +
                                 " -batch - << end\n"
                                 "link set lo up\n"
                                 "link add eth0 type veth peer name far\n"
                                 "link set far up\n"
                                 "addr add 10.1.0.1/24 brd + dev eth0\n"
                                 "link set eth0 up\n"
                                 "route add 224.0.0.0/4 dev eth0\n"
                                 "end\n";
        ASSERT_EQ(std::system(make.c_str()), 0);
    }
}

void enterNetwork(int place) {
    const std::string path = "/run/netns/" + networkOf(place);
    const int network = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::setns(network, CLONE_NEWNET), 0);
    ::close(network);
}

/// Without a word in any class: to wait in vain is no failure, what is told to an interface that was replaced
/// is told again, and the rest is asked again later, or done without.
bool isQuiet(const Scenario& scenario, const Fault::Call& call) {
    using Names = std::vector<std::string_view>;
    static const Names waiting = {"accept4",  "epoll_wait", "poll", "recv",
                                  "recvfrom", "recvmmsg",   "send", "sendmsg"};
    static const Names repeated = {"sendmmsg", "sendto"};
    static const Names always = {
        "EPOLL_CTL_DEL", "SO_KEEPALIVE and the like",
        "close",         "getsockname",
        "getsockopt",    "if_indextoname",
        "posix_spawn",   "if_nametoindex",
        "netlink bind",  "netlink socket",
        "shutdown",      "socket that asks for a route",
        "stat",          "waitpid",
    };
    const auto isOneOf = [&](const Names& names) { return std::ranges::count(names, call.name) > 0; };
    const bool inVain = call.code == EAGAIN || call.code == EINTR;
    const bool gone = call.code == ENETUNREACH || call.code == ENODEV;
    return isOneOf(scenario.quiet) || isOneOf(always) || (inVain && isOneOf(waiting)) ||
           (gone && isOneOf(repeated));
}

std::string textOf(int file) {
    std::ifstream stream("/proc/self/fd/" + std::to_string(file));
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// What a process tells the one that waits for it.
struct Verdict {
    bool ended = false;
    bool over = false;       // there are not so many calls
    std::size_t reasons = 1; // of the call
    char failed[80] = "";    // name and reason
};

template <class Play>
void playBearing(Play play) {
    try {
        play();
    } catch (const std::bad_alloc& error) {
        std::fprintf(stderr, "thrown: %s\n", error.what());
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "thrown: %s\n", std::strerror(error.code().value()));
    }
}

void failCall(const Scenario& scenario, int number, std::size_t reason, Verdict& verdict) {
    Fault::Call call;
    {
        const Fault fault(number, reason);
        playBearing(scenario.play);
        call = fault.call();
    }
    verdict.over = call.name.empty();
    verdict.reasons = call.reasons;
    std::snprintf(verdict.failed, sizeof verdict.failed, "%s: %s", call.name.c_str(),
                  std::strerror(call.code));
    EXPECT_TRUE(call.code == 0 || isQuiet(scenario, call) || isSaid(std::strerror(call.code)))
        << "without a word";
}

void failAllocation(const Scenario& scenario, int number, std::size_t, Verdict& verdict) {
    bool hit;
    {
        const FailingMemory memory(number, FailingMemory::Threads::kAll);
        playBearing(scenario.play);
        hit = memory.hit();
    }
    verdict.over = !hit;
    EXPECT_TRUE(!hit || scenario.quietMemory || isSaid("memory") || isSaid("bad_alloc")) << "without a word";
}

using Fail = void (*)(const Scenario&, int number, std::size_t reason, Verdict&);

/// A process that plays the scenario.
class Trial {
public:
    Trial(const Scenario& scenario, Fail fail, int number, std::size_t reason)
        : m_number(number), m_output{::memfd_create("output", MFD_CLOEXEC),
                                     ::memfd_create("errors", MFD_CLOEXEC)},
          m_verdict(new (::mmap(nullptr, sizeof(Verdict), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                                -1, 0)) Verdict) {
        std::fflush(nullptr);
        m_process = ::fork();
        if (m_process == 0)
            run(scenario, fail, reason);
    }
    ~Trial() {
        ::munmap(m_verdict, sizeof(Verdict));
        for (const int file : m_output)
            ::close(file);
    }
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    Verdict await() {
        int status = 0;
        ::waitpid(m_process, &status, 0);
        EXPECT_TRUE(status == 0 && m_verdict->ended)
            << "number " << m_number << ", " << m_verdict->failed << ": "
            << (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "it hangs\n" : "it fails\n") << output();
        return *m_verdict;
    }
    std::string output() const { return textOf(m_output[0]) + textOf(m_output[1]); }

private:
    [[noreturn]] void run(const Scenario& scenario, Fail fail, std::size_t reason) {
        ::alarm(kDeadline);
        enterNetwork(m_number % kAtOnce);
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
            ::dup2(m_output[stream - STDOUT_FILENO], stream);
        std::thread([] {}).join(); // ThreadSanitizer starts one of its own with the first
        const ProcessResources before = ProcessResources::now();
        const int failuresBefore = failures();
        fail(scenario, m_number, reason, *m_verdict);
        EXPECT_TRUE(comesTrue([&] {
            const ProcessResources after = ProcessResources::now();
            // The thread that was joined may have been counted.
            return after.descriptors == before.descriptors && after.threads <= before.threads;
        })) << ProcessResources::now().descriptors - before.descriptors
            << " descriptors and " << ProcessResources::now().threads - before.threads << " threads left";
        std::fflush(nullptr);
        m_verdict->ended = true;
        ::_exit(failures() == failuresBefore ? 0 : 1);
    }

    /// Those of the parent included, before the fork.
    static int failures() {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }

    const int m_number;
    const int m_output[2]; // files that take its standard streams
    Verdict* const m_verdict;
    pid_t m_process = -1;
};

/// @return those of the @p expected texts that no process has printed
std::vector<std::string> failEach(const Scenario& scenario, Fail fail, std::vector<std::string> expected,
                                  std::size_t mostReasons = 10) {
    makeNetworks();
    int played = 0;
    int last = 1;
    for (bool over = false; !over && last < kMost; last += kAtOnce)
        for (std::size_t reason = 0, reasons = 1; reason < reasons; ++reason) {
            std::optional<Trial> trials[kAtOnce];
            for (int i = 0; i < kAtOnce; ++i)
                trials[i].emplace(scenario, fail, last + i, reason);
            for (auto& trial : trials) {
                const Verdict verdict = trial->await();
                over = over || verdict.over;
                reasons = std::max(reasons, std::min(verdict.reasons, mostReasons));
                std::erase_if(expected, [output = trial->output()](const std::string& text) {
                    return output.find(text) != std::string::npos;
                });
                ++played;
            }
        }
    std::printf("%s: %d processes, %s\n", scenario.name, played,
                last < kMost ? "to the end" : "not to the end, which is beyond 200");
    return expected;
}

} // namespace

bool isSaid(std::string_view text) {
    const Sound sound;
    return textOf(STDERR_FILENO).find(text) != std::string::npos;
}

void failEachCall(const Scenario& scenario) {
    // Where threads call in another order, a number means another call, and one may be left out.
    std::vector<std::string> missing = failEach(scenario, &failCall, scenario.said);
    for (int again = 0; again < 10 && !missing.empty(); ++again)
        missing = failEach(scenario, &failCall, missing, 1);
    EXPECT_EQ(missing, std::vector<std::string>{});
}

void failEachAllocation(const Scenario& scenario) {
    failEach(scenario, &failAllocation, {});
}
