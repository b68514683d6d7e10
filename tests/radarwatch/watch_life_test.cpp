// A Watch in the process it lives in: destroyed anywhere, at any time; one that forks, exits, runs out.
#include "watch_fixture.h"

#include <RadarWatch/engine.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using radar::detail::Engine;
using radar::detail::Situation;

class WatchLife : public WatchOnLan {
protected:
    WatchLife() {
        std::thread([] {}).join(); // ThreadSanitizer starts a thread of its own with the first
        m_before = resources();
    }
    bool nothingIsLeft() const {
        return comesTrue([&] { // a thread that ended may have been counted before
            const auto [descriptors, threads] = resources();
            return descriptors == m_before.first && threads <= m_before.second;
        });
    }
    std::pair<std::ptrdiff_t, std::ptrdiff_t> m_before;
};

// ----------------------------------------------------------------------------------------------- destruction

TEST_F(WatchLife, EndsInEachStateAndLeavesNothing) {
    const std::map<const char*, std::function<void()>> states{
        {"at once", [&] { watch(); }},
        {"with an address that nobody has", [&] { watch(Watch::Options{net::transAddr("10.9.9.9")}); }},
        {"with events that nobody takes",
         [&] {
             const auto unread = watch();
             const auto watching = watch();
             EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
         }},
        {"the first of two",
         [&] {
             auto first = watch();
             const auto second = watch();
             first.reset();
             EXPECT_EQ(next(*second), "local 10.20.2.1 (eth0)");
         }},
        {"in a search",
         [&] {
             m_profile.write("");
             watch();
             m_profile.write("[Local]\nIP = 10.20.2.1\n");
         }},
    };
    for (const auto& [state, pass] : states) {
        SCOPED_TRACE(state);
        EXPECT_LT(timeOf(pass), 10s);
        EXPECT_TRUE(nothingIsLeft());
    }
}

TEST_F(WatchLife, NextReturnsWhenItsWatchIsDestroyed) {
    auto watching = watch();
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)"); // the only one
    auto waits = std::async(std::launch::async,
                            [waiting = watching.get()] { return waiting->next(-1ms).has_value(); });
    EXPECT_EQ(waits.wait_for(100ms), std::future_status::timeout);
    watching.reset();
    EXPECT_EQ(waits.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(waits.get());
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, CallbackMayDestroyItsWatch) {
    std::unique_ptr<Watch> watching;
    std::promise<void> set;
    std::atomic<bool> destroyed = false;
    watching = watch([&, wait = set.get_future().share()](const radar::Event&) {
        wait.wait();
        watching.reset();
        destroyed = true;
    });
    set.set_value();
    EXPECT_TRUE(comesTrue([&] { return destroyed.load(); }));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, DestructionWaitsForACallbackInProgress) {
    std::atomic<bool> entered = false;
    std::atomic<bool> left = false;
    auto watching = watch([&](const radar::Event&) {
        entered = true;
        std::this_thread::sleep_for(200ms); // nothing tells that the destructor has begun
        left = true;
    });
    ASSERT_TRUE(comesTrue([&] { return entered.load(); }));
    watching.reset();
    EXPECT_TRUE(left);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, CallbackMayCallEverythingAndMemoryThatItLacksCostsTheEvent) {
    const auto north = serve(m_host1, "North", 16);
    std::unique_ptr<Watch> watching;
    std::promise<void> set;
    std::atomic<int> calls = 0;
    const Output output;
    watching = watch([&, wait = set.get_future().share()](const radar::Event&) {
        wait.wait();
        if (++calls == 1)
            throw std::bad_alloc();
        EXPECT_EQ(watching->radars().size(), 1U);
        EXPECT_TRUE(watching->renumber("North") && watching->reset());
        EXPECT_FALSE(watching->next(1h).has_value());
        ++calls;
    });
    set.set_value();
    EXPECT_TRUE(comesTrue([&] { return calls == 3; }));
    EXPECT_EQ(output.err(), "RadarWatch: an event was lost: out of memory\n");
    watching.reset();
}

TEST_F(WatchLife, SignalHandlerMakesNextReturn) {
    const auto watching = watch();
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)"); // the only one
    struct sigaction handle {};
    handle.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &handle, nullptr), 0);
    std::atomic<bool> returned = false;
    std::thread waits([&] {
        EXPECT_FALSE(watching->next(-1ms).has_value());
        returned = true;
    });
    EXPECT_TRUE(comesTrue([&] {
        ::pthread_kill(waits.native_handle(), SIGUSR1);
        return returned.load();
    }));
    waits.join();
}

// -------------------------------------------------------------------------------------------- the process

TEST_F(WatchLife, ForkedChildMakesItsOwnAndItsParentNoticesNothing) {
    auto north = serve(m_host1, "North", 16);
    auto watching = watch();
    const auto calls = watch([](const radar::Event&) {});
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        const bool idle = !watching->next(-1ms) && watching->radars().empty() && !watching->reset();
        watching.reset();
        bool hears = true;
// ThreadSanitizer lets no forked child start a thread, and AddressSanitizer's allocator keeps the locks that
// threads of the parent held.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
        auto own = watch();
        hears = next(*own) == "local 10.20.2.1 (eth0)" && next(*own) == "North appeared, 16 at 10.20.1.1";
        own.reset();
#endif
        ::_exit(idle && hears ? 7 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    EXPECT_EQ(next(*watching), "North appeared, 16 at 10.20.1.1");
    const auto south = serve(m_host2, "South", 17);
    EXPECT_EQ(next(*watching), "South appeared, 17 at 10.20.1.2");
}

TEST_F(WatchLife, ProgramMayEndWhileWatchesStand) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        static const auto s_watching = watch();
        new auto(watch([](const radar::Event&) {}));
        s_watching->next(10s);
        std::exit(7);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

TEST_F(WatchLife, DescriptorsThatRunOutAreToldAndWaitedFor) {
    const auto north = serve(m_host1, "North", 16);
    auto watching = watch(Watch::Options{net::transAddr("10.20.2.9")});
    m_lan.changeAddress(m_display, 0, "");
    const Output output;
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{static_cast<rlim_t>(::dup(0)), limit.rlim_max};
    ::close(static_cast<int>(none.rlim_cur));
    const lab::Inside inside = m_display.enter();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(Watch{}, std::system_error);
    EXPECT_EQ(next(*watching, 2s), "nothing") << "and no address is taken for lost";
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::thread([&] { m_lan.changeAddress(m_display, 0, "10.20.2.9/16"); }).join();
    EXPECT_EQ(next(*watching), "local 10.20.2.9 (eth0)");
    EXPECT_EQ(next(*watching), "North appeared, 16 at 10.20.1.1");
}

// --------------------------------------------------------------------------------------------- followers

/// Records its situations: "10.20.2.1 eth0 North 16".
class Records : public radar::detail::Follower {
public:
    explicit Records(std::function<void()> onTick = {}) : m_onTick(std::move(onTick)) {}
    virtual ~Records() = default;
    void onSituation(const Situation& situation) override {
        const auto& radar = situation.radar;
        situations.add(std::string(net::transAddr(situation.localAddress)) + " " + situation.device +
                       (radar ? " " + radar->name + " " + std::to_string(radar->hostId) : ""));
        change = situation.interfaceChange;
    }
    void onTick(std::chrono::steady_clock::time_point) override {
        ++ticks;
        if (m_onTick)
            m_onTick();
    }
    bool reaches(const std::string& situation) const {
        return comesTrue([&] {
            const auto all = situations.all();
            return !all.empty() && all.back() == situation;
        });
    }
    Log<std::string> situations;
    std::atomic<std::uint64_t> change = 0;
    std::atomic<int> ticks = 0;

private:
    const std::function<void()> m_onTick;
};

class Followers : public WatchLife {
protected:
    std::shared_ptr<Engine> engine() const {
        const lab::Inside inside = m_display.enter();
        return Engine::forAddress(0);
    }
};

TEST_F(Followers, AreToldEveryChangeOnceAndTickedOnceASecond) {
    auto north = serve(m_host1, "North", 16);
    const auto engine = this->engine();
    EXPECT_EQ(engine, this->engine()) << "it is shared";
    const auto follower = std::make_shared<Records>();
    engine->follow("North", follower);
    ASSERT_TRUE(follower->reaches("10.20.2.1 eth0 North 16"));
    north = serve(m_host1, "North", 17);
    ASSERT_TRUE(follower->reaches("10.20.2.1 eth0 North 17"));
    const auto change = follower->change.load();
    follower->situations.clear();
    const int ticks = follower->ticks;
    ASSERT_TRUE(comesTrue([&] { return follower->ticks >= ticks + 2; }));
    EXPECT_TRUE(follower->situations.all().empty()) << "nothing has changed";
    m_lan.unplug(m_display);
    m_lan.plugIn(m_display);
    ASSERT_TRUE(comesTrue([&] { return follower->change != change; })) << "the interface was replaced";
    engine->unfollow(follower.get());
    EXPECT_EQ(follower.use_count(), 1);
}

TEST_F(Followers, AreNotCalledAnyMoreWhenUnfollowReturns) {
    const auto engine = this->engine();
    std::atomic<bool> entered = false;
    std::atomic<bool> left = false;
    const auto follower = std::make_shared<Records>([&] {
        entered = true;
        std::this_thread::sleep_for(100ms); // nothing tells that unfollow has begun
        left = true;
    });
    engine->follow("North", follower);
    ASSERT_TRUE(comesTrue([&] { return entered.load(); }));
    engine->unfollow(follower.get());
    EXPECT_TRUE(left);
}

TEST_F(Followers, MayGoAndEndTheEngineFromInsideACall) {
    auto engine = this->engine();
    std::atomic<bool> gone = false;
    std::shared_ptr<Records> follower;
    std::promise<void> set;
    follower = std::make_shared<Records>([&, wait = set.get_future().share()] {
        wait.wait();
        engine->unfollow(follower.get());
        follower.reset();
        engine.reset();
        gone = true;
    });
    engine->follow("North", follower);
    set.set_value();
    EXPECT_TRUE(comesTrue([&] { return gone.load(); }));
    EXPECT_TRUE(nothingIsLeft());
}

} // namespace
