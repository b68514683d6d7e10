#include "failing_memory.h"
#include "netip_fixture.h"

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

using testing::ExitedWithCode;

/// Interfaces eth8 and eth9 of which there is nothing but a carrier file, and commands that do nothing.
class NetworkFault : public testing::Test {
protected:
    void SetUp() override {
        auto timing = net::detail::timing();
        timing.watchPass = timing.restartCarrier = 2ms;
        net::detail::setTiming(timing);
        ASSERT_TRUE(succeeds("mkdir -p /run/test/bin && cd /run/test/bin && "
                             "for name in ifconfig nmcli service udhcpc; do ln -s /bin/true $name; done && "
                             "mount -t tmpfs none /sys/class/net && mkdir /sys/class/net/eth8 "
                             "/sys/class/net/eth9"));
        ::setenv("PATH", ("/run/test/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
    }
    static void setCarrier(const std::string& interface, bool up) {
        std::ofstream("/sys/class/net/" + interface + "/carrier") << up << '\n';
    }
};

NetIpLog* s_listener = nullptr; // of programs that end while they stand
tNetIPHelper* s_helper = nullptr;

/// @param pass long enough for the listener to be added before the first one
void watch(std::chrono::milliseconds pass) {
    setWatchPass(pass);
    s_listener = new NetIpLog;
    s_helper = new tNetIPHelper(false, "eth9", "10.5.0.9", "255.255.255.0");
    s_helper->AddNetIPListener(s_listener);
}

TEST_F(NetworkFault, AProgramEndsWithItsOwnStatusWhileAWatchOrARestartStands) {
    setCarrier("eth9", true);
    const std::pair<const char*, void (*)()> programs[] = {
        {"a watch stands",
         [] {
             watch(500ms);
             s_listener->lastBecomes("eth9 10.5.0.9");
         }},
        {"a restart on the watch's thread waits until it may",
         [] {
             tNetIPHelper::SetResetReady(false);
             watch(500ms);
             s_listener->reaches(2);
         }},
        {"a restart on a thread of the program waits until it may",
         [] {
             tNetIPHelper::SetResetReady(false);
             watch(1h);
             std::thread(&tNetIPHelper::NetworkRestart).detach();
             s_listener->reaches(2);
         }},
    };
    for (const auto& [what, begin] : programs) {
        SCOPED_TRACE(what);
        const auto program = [begin = begin] {
            ::alarm(30);
            begin();
            std::exit(7);
        };
        EXPECT_EXIT(program(), ExitedWithCode(7), "");
    }
}

std::unique_ptr<tNetIPHelper> s_static; // destroyed at the end of the program, and of a forked child

TEST_F(NetworkFault, AForkedChildThatExitsEndsAtOnceAndTheWatchGoesOn) {
    NetIpLog listener;
    s_static = std::make_unique<tNetIPHelper>(false, "eth9", "10.5.0.9", "255.255.255.0");
    s_static->AddNetIPListener(&listener);
    const auto child = [] {
        ::alarm(30);
        std::exit(7);
    };
    EXPECT_EXIT(child(), ExitedWithCode(7), "");
    setCarrier("eth9", true);
    EXPECT_TRUE(listener.lastBecomes("eth9 10.5.0.9"));
    s_static.reset();
}

/// Throws on the thread that made it, while told to.
class Thrower : public net::iNetIPListener {
public:
    bool throws = true;

private:
    void OnNetIPChanged(const std::string&, const std::string&, bool) override {
        if (throws && std::this_thread::get_id() == m_thread)
            throw std::runtime_error("listener");
    }
    const std::thread::id m_thread = std::this_thread::get_id();
};

TEST_F(NetworkFault, WhatAListenerThrowsReachesTheApplicationAndLeavesTheWatchWhole) {
    NetIpLog listener;
    {
        Thrower thrower;
        tNetIPHelper helper(false, "eth9", "10.5.0.9", "255.255.255.0");
        tNetIPHelper other(false, "eth8", "10.5.0.8", "255.255.255.0");
        EXPECT_THROW(helper.AddNetIPListener(&thrower), std::runtime_error);
        EXPECT_NO_THROW(tNetIPHelper::NetworkRestart()) << "it was not added";

        thrower.throws = false;
        other.AddNetIPListener(&listener);
        other.AddNetIPListener(&thrower);
        thrower.throws = true;
        EXPECT_THROW(tNetIPHelper::NetworkRestart(), std::runtime_error);
        setCarrier("eth8", true);
        EXPECT_TRUE(listener.lastBecomes("eth8 10.5.0.8")) << "the watch is not left paused";
        other.RemoveNetIPListener(&thrower);
        EXPECT_NO_THROW(tNetIPHelper::NetworkRestart());
    }
    const std::size_t told = listener.all().size();
    tNetIPHelper::NetworkRestart();
    EXPECT_EQ(listener.all().size(), told);
}

TEST_F(NetworkFault, EveryAllocationOfTheWatchMayFail) {
    NetIpLog listener;
    const Output output;
    tNetIPHelper helper(true, "eth9", "10.5.0.9", "255.255.255.0");
    helper.AddNetIPListener(&listener);
    const auto plugAndPull = [&] {
        setCarrier("eth9", true);
        EXPECT_TRUE(listener.lastBecomes("eth9 10.5.0.9"));
        setCarrier("eth9", false);
        EXPECT_TRUE(listener.lastBecomes("eth9 0.0.0.0"));
    };
    long failed = 0;
    for (bool hit = true; hit && !HasFailure(); failed += hit ? 1 : 0) {
        SCOPED_TRACE(failed + 1);
        const FailingMemory memory(failed + 1);
        plugAndPull();
        hit = memory.hit();
    }
    EXPECT_GT(failed, 10);
    EXPECT_THAT(output.err(), HasSubstr("tNetIPHelper: a pass of the watch was lost: out of memory\n"));
}

TEST_F(NetworkFault, CommandsRunOneAtATimeAndNoDestructorWaitsForThoseOfAnother) {
    std::filesystem::remove("/run/test/bin/ifconfig");
    std::ofstream("/run/test/bin/ifconfig") << R"(#!/bin/sh
        mkdir /run/test/running || touch /run/test/overlap
        echo >> /run/test/count
        if [ "$1 $2" = "eth8:0 10.5.0.8" ]; then
            for i in $(seq 300); do
                [ -e /run/test/hold ] || break
                touch /run/test/held
                sleep 0.05
            done
        fi
        rmdir /run/test/running
        )";
    ASSERT_TRUE(succeeds("chmod +x /run/test/bin/ifconfig"));
    const Output output;
    NetIpLog busyLog;
    NetIpLog otherLog;
    tNetIPHelper busy(false, "eth8", "10.5.0.8", "255.255.255.0");
    busy.AddNetIPListener(&busyLog);
    auto other = std::make_unique<tNetIPHelper>(false, "eth9", "10.5.0.9", "255.255.255.0");
    other->AddNetIPListener(&otherLog);
    setCarrier("eth8", true);
    setCarrier("eth9", true);
    EXPECT_TRUE(busyLog.lastBecomes("eth8 10.5.0.8"));
    EXPECT_TRUE(otherLog.lastBecomes("eth9 10.5.0.9"));

    ASSERT_TRUE(succeeds("rm -rf /run/test/overlap /run/test/count")); // a restart's may meet a watch's
    const auto commands = [] { return std::stoi(outputOf("wc -l < /run/test/count || echo 0")); };
    EXPECT_TRUE(comesTrue([&] { return commands() > 20; }));
    EXPECT_FALSE(std::filesystem::exists("/run/test/overlap"));

    std::ofstream("/run/test/hold");
    const auto isHeld = [] { return std::filesystem::exists("/run/test/held"); };
    ASSERT_TRUE(comesTrue(isHeld));
    const auto destroysOther = [&] {
        auto done = std::async(std::launch::async, [&] { other.reset(); });
        return done.wait_for(2s) == std::future_status::ready ||
               (std::filesystem::remove("/run/test/hold"), false);
    };
    EXPECT_TRUE(destroysOther()) << "it waits for its turn";

    busyLog.clear();
    other = std::make_unique<tNetIPHelper>(false, "eth9", "10.5.0.9", "255.255.255.0");
    EXPECT_TRUE(busyLog.lastBecomes("eth8 0.0.0.0")) << "its restart has begun";
    EXPECT_TRUE(destroysOther()) << "its restart waits for the command";
    EXPECT_TRUE(std::filesystem::remove("/run/test/hold")) << "the command is still running";
    EXPECT_TRUE(busyLog.lastBecomes("eth8 10.5.0.8"));
}

} // namespace
