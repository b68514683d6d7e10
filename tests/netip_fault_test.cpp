#include "faults.h"
#include "left_threads.h"
#include "netip_fixture.h"
#include "radarwatch/asleep.h"

namespace {

TEST_F(NetworkManagement, AProgramEndsWithItsOwnStatusWhileARestartWaitsUntilItMay) {
    const auto program = [](bool onOwnThread) {
        ::alarm(30);
        tNetIPHelper::SetResetReady(false);
        static NetIpLog* const s_listener = new NetIpLog;
        static auto* const s_helper = new tNetIPHelper(false, "eth9", "10.5.0.9", "255.255.255.0");
        s_helper->AddNetIPListener(s_listener);
        s_listener->reaches(2); // added, no carrier
        if (onOwnThread)
            std::thread(&tNetIPHelper::NetworkRestart).detach();
        else
            setCarrier("eth9", "1");
        s_listener->reaches(3);
        std::exit(7);
    };
    for (const bool onOwnThread : {true, false})
        EXPECT_EXIT(program(onOwnThread), testing::ExitedWithCode(7), "");
}

/// Throws on the thread that made it, while told to, and once when it is told of an address.
class Thrower : public net::iNetIPListener {
public:
    bool throws = true;

private:
    void OnNetIPChanged(const std::string&, const std::string& ip, bool) override {
        if (throws && std::this_thread::get_id() == m_thread)
            throw std::runtime_error("listener");
        if (ip != "0.0.0.0" && !std::exchange(m_hasThrown, true))
            throw std::bad_alloc();
    }
    bool m_hasThrown = false;
    const std::thread::id m_thread = std::this_thread::get_id();
};

TEST_F(NetworkManagement, WhatAListenerThrowsReachesTheApplicationAndLeavesTheWatchWhole) {
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
        setCarrier("eth8", "1");
        EXPECT_TRUE(listener.lastBecomes("eth8 10.5.0.8")) << "the watch is not left paused";
        listener.clear();
        EXPECT_TRUE(listener.lastBecomes("eth8 10.5.0.8")) << "again, since not all have heard it";
        other.RemoveNetIPListener(&thrower);
        EXPECT_NO_THROW(tNetIPHelper::NetworkRestart());
    }
    const std::size_t told = listener.all().size();
    tNetIPHelper::NetworkRestart();
    EXPECT_EQ(listener.all().size(), told);
}

TEST_F(NetworkManagement, CommandsRunOneAtATimeAndNoDestructorWaitsForThoseOfAnother) {
    replaceCommands(R"(
        mkdir /run/running || touch /run/overlap
        echo >> /run/count
        if [ "$1 $2" = "eth8:0 10.5.0.8" ]; then
            for i in $(seq 300); do
                [ -e /run/hold ] || break
                touch /run/held
                sleep 0.05
            done
        fi
        rmdir /run/running)");
    const Output output;
    NetIpLog busyLog;
    NetIpLog otherLog;
    tNetIPHelper busy(false, "eth8", "10.5.0.8", "255.255.255.0");
    busy.AddNetIPListener(&busyLog);
    auto other = std::make_unique<tNetIPHelper>(false, "eth9", "10.5.0.9", "255.255.255.0");
    other->AddNetIPListener(&otherLog);
    setCarrier("eth8", "1");
    setCarrier("eth9", "1");
    EXPECT_TRUE(busyLog.lastBecomes("eth8 10.5.0.8"));
    EXPECT_TRUE(otherLog.lastBecomes("eth9 10.5.0.9"));

    ASSERT_TRUE(succeeds("rm -rf /run/overlap /run/count")); // a restart's may meet a watch's
    EXPECT_TRUE(comesTrue([] { return succeeds("[ $(wc -l < /run/count || echo 0) -gt 20 ]"); }));
    EXPECT_FALSE(std::filesystem::exists("/run/overlap"));

    std::ofstream("/run/hold");
    ASSERT_TRUE(comesTrue([] { return std::filesystem::exists("/run/held"); }));
    auto destroyed = std::async(std::launch::async, [&] { other.reset(); });
    EXPECT_EQ(destroyed.wait_for(2s), std::future_status::ready) << "it waits for its turn";
    EXPECT_TRUE(std::filesystem::remove("/run/hold")) << "the command is still running";
    EXPECT_TRUE(busyLog.lastBecomes("eth8 10.5.0.8"));
}

TEST_F(NetworkManagement, DestructorWaitsForAListenerThatAnotherThreadCalls) {
    struct : net::iNetIPListener {
        LongCallback called;
        void OnNetIPChanged(const std::string&, const std::string&, bool) override {
            if (::gettid() != ::getpid()) // not while it is added
                called();
        }
    } listener;
    setWatchTimes(1h, 2ms);
    std::optional<tNetIPHelper> helper(std::in_place, false, "eth9", "10.5.0.9", "255.255.255.0");
    helper->AddNetIPListener(&listener);
    const std::jthread restart(&tNetIPHelper::NetworkRestart);
    EXPECT_TRUE(listener.called.isAwaitedBy([&] { helper.reset(); }));
}

TEST_F(NetworkManagement, ARestartThatIsGivenUpLeavesNoInterfaceWithoutConfiguration) {
    replaceCommands(R"(
        echo "${0##*/} $*" >> "${0%/*}/recorded"
        case "$*" in *"connection 0") sleep 1 ;; esac)"); // which the destructor waits for
    const auto hasRun = [this](const std::string& command) {
        return comesTrue([&] { return recordedCommands().find(command) != std::string::npos; }, 30s);
    };
    tNetIPHelper::SetNetworkToolType(true);
    setCarrier("eth9", "1");
    const tNetIPHelper other(false, "eth9", "10.5.0.9", "255.255.255.0");
    ASSERT_TRUE(hasRun("nmcli connection modify eth9 ")) << "its own restart is over";
    forgetCommands();
    auto starter = std::make_unique<tNetIPHelper>(false, "eth8", "10.5.0.8", "255.255.255.0");
    setCarrier("eth8", "1");
    ASSERT_TRUE(hasRun("connection 0"));
    starter.reset();
    EXPECT_TRUE(hasRun("nmcli connection add con-name eth9 "));
    EXPECT_THAT(recordedCommands(), Not(HasSubstr("connection 1"))) << "nothing more is deleted";
}

TEST_F(NetworkManagement, AForkedChildRestartsTheNetworkWhateverItsParentWaitsFor) {
    tNetIPHelper::SetResetReady(false);
    NetIpLog listener;
    tNetIPHelper parents(false, "eth9", "10.5.0.9", "255.255.255.0");
    parents.AddNetIPListener(&listener);
    ASSERT_TRUE(listener.reaches(2)) << "added, no carrier";
    setCarrier("eth9", "1");
    ASSERT_TRUE(listener.reaches(3)) << "a restart has begun";
    const auto child = [] {
        ::alarm(30);
        tNetIPHelper::SetResetReady(true);
        tNetIPHelper::NetworkRestart();
        std::_Exit(7);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(7), "");
}

TEST_F(NetworkManagement, DescriptorsThatRunOutPullNoCable) {
    NetIpLog listener;
    setCarrier("eth9", "1");
    tNetIPHelper helper(false, "eth9", "10.5.0.9", "255.255.255.0");
    helper.AddNetIPListener(&listener);
    ASSERT_TRUE(listener.lastBecomes("eth9 10.5.0.9"));
    const std::vector<std::string> before = listener.all();
    const Output output;
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        const Fault none("open", error, 1, 1'000'000);
        const std::string reason = std::strerror(error);
        EXPECT_TRUE(isPrinted(output, "a pass of the watch was lost: " + reason + "\n"));
    }
    EXPECT_EQ(listener.all(), before);
    setCarrier("eth9", "0");
    EXPECT_TRUE(listener.lastBecomes("eth9 0.0.0.0"));
}

TEST_F(NetworkManagement, InterfacesThatCannotBeListedHaveNotLostTheirAddresses) {
    ASSERT_TRUE(succeeds("ip link set lo up"));
    setCarrier("lo", "1");
    for (const bool nmcli : {false, true}) {
        tNetIPHelper::SetNetworkToolType(nmcli);
        NetIpLog listener;
        tNetIPHelper helper(true, "lo", "10.5.0.9", "255.255.255.0");
        helper.AddNetIPListener(&listener);
        ASSERT_TRUE(listener.lastBecomes("lo 127.0.0.1 dhcp"));
        forgetCommands();
        const std::vector<std::string> before = listener.all();
        const Output output;
        {
            const Fault none("getifaddrs", EMFILE, 1, 1'000'000);
            EXPECT_TRUE(isPrinted(output, "get ifAddrs: Too many open files\nget ifAddrs: "));
        }
        EXPECT_EQ(recordedCommands(), "");
        EXPECT_EQ(listener.all(), before);
    }
}

} // namespace
