#include "each_failure.h"

#include <sched.h>

#include <new>

namespace {

constexpr int kAtOnce = 8;         // processes
constexpr int kMost = 200;         // calls or allocations of a scenario
constexpr unsigned kDeadline = 60; // seconds of a process

/// One network a process, since a port that is not to be shared is refused to the others. The first of a
/// place makes it.
void enterNetwork(int place) {
    const std::string name = "place" + std::to_string(place);
    const std::string path = "/run/netns/" + name;
    if (!std::filesystem::exists(path)) {
        const std::string make = "ip netns add " + name + " && ip -n " + name +
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
    const int network = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::setns(network, CLONE_NEWNET), 0);
    ::close(network);
}

/// Without a word in any class: to wait in vain is no failure, what is told to an interface that was replaced
/// is told again, and the rest is asked again later, or done without.
bool isQuiet(const Scenario& scenario, const Fault::Call& call) {
    using Names = std::vector<std::string_view>;
    static const Names waiting = {"accept4",  "epoll_wait", "open",    "poll", "pread",   "read", "recv",
                                  "recvfrom", "recvmmsg",   "recvmsg", "send", "sendmsg", "write"};
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

/// What fails in one process: a call or an allocation, by its number from 1, for the reason with this index.
struct Turn {
    int number;
    std::size_t reason;
};

/// A process that plays the scenario.
class Trial {
public:
    Trial(const Scenario& scenario, Fail fail, Turn turn, int place)
        : m_turn(turn), m_output{::memfd_create("output", MFD_CLOEXEC),
                                 ::memfd_create("errors", MFD_CLOEXEC)},
          m_verdict(new (::mmap(nullptr, sizeof(Verdict), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                                -1, 0)) Verdict) {
        std::fflush(nullptr);
        m_process = ::fork();
        if (m_process == 0)
            run(scenario, fail, place);
    }
    ~Trial() {
        ::munmap(m_verdict, sizeof(Verdict));
        for (const int file : m_output)
            ::close(file);
    }
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    pid_t process() const { return m_process; }
    Turn turn() const { return m_turn; }
    /// @param status with which the process has ended
    Verdict verdict(int status) const {
        EXPECT_EQ(status, 0) << "number " << m_turn.number << ", " << m_verdict->failed << ": "
                             << (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "it hangs\n"
                                                                                    : "it fails\n")
                             << output();
        return *m_verdict;
    }
    std::string output() const { return textOf(m_output[0]) + textOf(m_output[1]); }

private:
    [[noreturn]] void run(const Scenario& scenario, Fail fail, int place) {
        ::alarm(kDeadline);
        enterNetwork(place);
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
            ::dup2(m_output[stream - STDOUT_FILENO], stream);
        std::thread([] {}).join(); // ThreadSanitizer starts one of its own with the first
        const ProcessResources before = ProcessResources::now();
        const int failuresBefore = failures();
        fail(scenario, m_turn.number, m_turn.reason, *m_verdict);
        EXPECT_TRUE(comesTrue([&] {
            const ProcessResources after = ProcessResources::now();
            // The thread that was joined may have been counted.
            return after.descriptors == before.descriptors && after.threads <= before.threads;
        })) << ProcessResources::now().descriptors - before.descriptors
            << " descriptors and " << ProcessResources::now().threads - before.threads << " threads left";
        std::fflush(nullptr);
        ::_exit(failures() == failuresBefore ? 0 : 1);
    }

    /// Those of the parent included, before the fork.
    static int failures() {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }

    const Turn m_turn;
    const int m_output[2]; // files that take its standard streams
    Verdict* const m_verdict;
    pid_t m_process = -1;
};

/// @return those of the @p expected texts that no process has printed
std::vector<std::string> failEach(const Scenario& scenario, Fail fail, std::vector<std::string> expected,
                                  std::size_t mostReasons = 10) {
    std::optional<Trial> trials[kAtOnce]; // each in the network of its place
    std::vector<Turn> reasons;            // further ones, of calls that have failed for their first
    int last = 0;
    bool over = false;
    const auto next = [&]() -> std::optional<Turn> {
        if (reasons.empty())
            return over || last == kMost ? std::nullopt : std::optional(Turn{++last, 0});
        const Turn turn = reasons.back();
        reasons.pop_back();
        return turn;
    };
    int played = 0;
    for (;;) {
        for (int place = 0; place < kAtOnce; ++place)
            if (!trials[place])
                if (const auto turn = next())
                    trials[place].emplace(scenario, fail, *turn, place);
        int status = 0;
        const pid_t ended = ::waitpid(-1, &status, 0);
        if (ended == -1) {
            EXPECT_EQ(errno, ECHILD) << "no process is left";
            break;
        }
        const auto trial = std::ranges::find_if(
            trials, [&](const auto& running) { return running && running->process() == ended; });
        if (trial == std::end(trials))
            continue; // what one of them has left behind
        const Verdict verdict = (*trial)->verdict(status);
        const Turn turn = (*trial)->turn();
        over = over || verdict.over;
        for (std::size_t reason = 1; turn.reason == 0 && reason < std::min(verdict.reasons, mostReasons);
             ++reason)
            reasons.push_back({turn.number, reason});
        std::erase_if(expected, [output = (*trial)->output()](const std::string& text) {
            return output.find(text) != std::string::npos;
        });
        trial->reset();
        ++played;
    }
    std::printf("%s: %d processes, %s\n", scenario.name, played,
                over ? "to the end" : "not to the end, which is beyond 200");
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
