#include "netip_fixture.h"

namespace {

const char* const kRestartOfEth9 = "ifconfig|eth9:0|down\n"
                                   "nmcli|connection|delete|eth9\n"
                                   "ifconfig|eth9:0|10.5.0.9|netmask|255.255.255.0\n";

TEST_F(NetworkManagement, CarrierIsTheLastLineOfItsFile) {
    for (const auto& [lines, carrier] :
         {std::pair{"0\n1", true}, {" 1", true}, {"1\n0", false}, {"", false}, {"1\nup", false}}) {
        setCarrier("eth9", lines);
        EXPECT_EQ(tNetIPHelper::GetNetCarrier("eth9"), carrier) << lines;
    }
    EXPECT_FALSE(tNetIPHelper::GetNetCarrier("eth8"));
}

TEST_F(NetworkManagement, RestartWithNmcliRunsExactlyTheseCommandsInOrder) {
    tNetIPHelper::SetNetworkToolType(true);
    setWatchTimes(1h, 1h); // no watch prints in between
    tNetIPHelper first(true, "eth8", "10.5.0.8", "255.255.0.0");
    tNetIPHelper second(false, "eth9", "10.5.0.9", "255.255.0.0");
    const std::string expected =
        "\r\n------------------------------network restart-------------------------------\r\n"
        "\r\nN++++++++ eth8 network reset mutex wait\r\n"
        "\r\nN++++++++ eth8 network reset mutex free\r\n"
        "\r\nN++++++++ eth9 network reset mutex wait\r\n"
        "\r\nN++++++++ eth9 network reset mutex free\r\n"
        "@ifconfig eth8:0 down\r\n"
        "@nmcli connection delete eth8\r\n"
        "@ifconfig eth9:0 down\r\n"
        "@nmcli connection delete eth9\r\n"
        "@nmcli connection delete Wired\\ connection\\ 0\r\n"
        "@nmcli connection delete Wired\\ connection\\ 1\r\n"
        "@nmcli connection delete Wired\\ connection\\ 2\r\n"
        "@nmcli connection delete 有线连接\\ 0\r\n"
        "@nmcli connection delete 有线连接\\ 1\r\n"
        "@nmcli connection delete 有线连接\\ 2\r\n"
        "@service network-manager restart\r\n"
        "@nmcli connection add con-name eth8 type ethernet ifname eth8 ipv4.method auto autoconnect yes\r\n"
        "@nmcli connection add con-name eth9 type ethernet ifname eth9 ipv4.method manual "
        "ipv4.addresses 10.5.0.9/24\r\n"
        "\r\n------------------------------network restart over--------------------------\r\n";
    EXPECT_EQ(outOf(&tNetIPHelper::NetworkRestart), expected);
    EXPECT_THAT(recordedCommands(), HasSubstr("delete|有线连接 2\nservice|network-manager|restart\n"));
}

TEST_F(NetworkManagement, RestartWithIfconfigWaitsForResetReadyAndThenRunsExactlyTheseCommands) {
    tNetIPHelper::SetResetReady(false);
    NetIpLog listener;
    tNetIPHelper first(true, "eth8", "10.5.0.8", "255.255.0.0");
    tNetIPHelper second(false, "eth9", "10.5.0.9", "255.255.255.0");
    first.AddNetIPListener(&listener);
    ASSERT_TRUE(listener.reaches(2)) << "added, no carrier";
    const Output output;
    setWatchTimes(2ms, 2ms);
    auto restart = std::async(std::launch::async, &tNetIPHelper::NetworkRestart);
    ASSERT_TRUE(listener.reaches(3)) << "paused";
    setCarrier("eth8", "1");
    EXPECT_TRUE(isPrinted(output, "eth8 carrier state changed 1"));
    EXPECT_EQ(restart.wait_for(100ms), std::future_status::timeout);
    setCarrier("eth8", "0");
    EXPECT_TRUE(isPrinted(output, "eth8 carrier state changed 0"));
    EXPECT_EQ(recordedCommands(), "");
    EXPECT_EQ(listener.all().size(), 3U) << "the watch neither detects nor reports";

    tNetIPHelper::SetResetReady(true);
    restart.get();
    EXPECT_EQ(
        recordedCommands(),
        "ifconfig|eth8:0|down\n"
        "nmcli|connection|delete|eth8\n"
        "ifconfig|eth9:0|down\n"
        "nmcli|connection|delete|eth9\n"
        "nmcli|connection|add|con-name|eth8|type|ethernet|ifname|eth8|ipv4.method|auto|autoconnect|yes\n"
        "udhcpc|-i|eth8|-n\n"
        "ifconfig|eth8:0|10.5.0.8|netmask|255.255.0.0\n"
        "ifconfig|eth9:0|10.5.0.9|netmask|255.255.255.0\n");
    EXPECT_TRUE(listener.reaches(4)) << "reported although the same";
    EXPECT_THAT(output.out(),
                testing::ContainsRegex("@nmcli connection delete eth9\r\n.*Ifconfig Mode [.]{3}\r\n.*@"));
}

TEST_F(NetworkManagement, UnsafeTextReachesNoShell) {
    setCarrier("lo", "1");
    const std::string injection = "; touch /run/injected;";
    for (const auto& [nmcli, address] :
         {std::pair{true, std::string("127.0.0.1")}, {false, "10.5.0.9 " + injection}}) {
        tNetIPHelper::SetNetworkToolType(nmcli);
        NetIpLog listener;
        tNetIPHelper badName(true, "eth9" + injection, "10.5.0.8", "255.255.255.0");
        tNetIPHelper badAddress(false, "lo", "10.5.0.9 " + injection, "255.255.255.0");
        tNetIPHelper badMask(false, "eth7", "10.5.0.7", "255.255.255.0" + injection);
        badAddress.AddNetIPListener(&listener);
        ASSERT_TRUE(listener.lastBecomes("lo " + address)) << "the manual one is told where it cannot be set";
    }
    EXPECT_FALSE(std::filesystem::exists("/run/injected"));
    for (const char* unsafe : {"eth9", "10.5.0.9", "netmask"})
        EXPECT_THAT(recordedCommands(), Not(HasSubstr(unsafe)));
    EXPECT_THAT(recordedCommands(), HasSubstr("ifconfig|eth7:0|down\n"));
}

TEST_F(NetworkManagement, DestructionCancelsTheRestartThatTheInstanceBegan) {
    NetIpLog listener;
    NetIpLog nextLog;
    tNetIPHelper other(false, "eth9", "10.5.0.9", "255.255.255.0");
    auto next = std::make_unique<tNetIPHelper>(false, "eth7", "10.5.0.7", "255.255.255.0");
    other.AddNetIPListener(&listener);
    next->AddNetIPListener(&nextLog);
    ASSERT_TRUE(listener.reaches(2) && nextLog.reaches(2));
    tNetIPHelper::SetResetReady(false);
    auto starter = std::make_unique<tNetIPHelper>(false, "eth8", "10.5.0.8", "255.255.255.0");
    setCarrier("eth8", "1");
    ASSERT_TRUE(listener.reaches(3)) << "the restart has begun";
    auto queued = std::async(std::launch::async, &tNetIPHelper::NetworkRestart);
    starter.reset();
    EXPECT_EQ(recordedCommands(), "");
    ASSERT_TRUE(listener.reaches(4)) << "the other one goes on";
    EXPECT_EQ(nextLog.all().size(), 2U) << "its turn did not come";
    next.reset();

    tNetIPHelper::SetResetReady(true);
    queued.get();
    EXPECT_EQ(recordedCommands(), kRestartOfEth9) << "the queued restart runs now";
}

} // namespace
