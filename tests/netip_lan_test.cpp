#include "netip_fixture.h"

#include <UdpSocket/udpsocket.h>

namespace {

/// A veth pair "eth0" and "far0", the latter in the namespace "far" with 10.5.0.1; a directory of the test's
/// own on /run, which is private; and nobody's resolver configuration but the test's.
class NetworkOnALan : public testing::Test {
protected:
    void SetUp() override {
        setWatchTimes(200ms, 200ms);
        ASSERT_TRUE(succeeds(R"(set -e
            mkdir /run/test
            touch /run/test/resolv.conf
            mount --bind /run/test/resolv.conf /etc/resolv.conf
            ip netns add far
            ip link add eth0 type veth peer name far0 netns far
            ip link set eth0 up
            ip -n far addr add 10.5.0.1/24 dev far0)"));
    }
    static bool plugCable() { return succeeds("ip -n far link set far0 up"); }
};

std::string outputOf(const std::string& command) {
    lab::Process shell({.command = {"sh", "-c", command}});
    shell.wait(30s);
    return shell.output();
}

bool startDhcpServer() {
    return succeeds("ip -n far link set lo up && ip netns exec far dnsmasq --conf-file=/dev/null --port=0 "
                    "--interface=far0 --bind-interfaces --dhcp-range=10.5.0.50,10.5.0.50,10m --dhcp-option=3 "
                    "--no-ping --user=root --group=root --pid-file=/run/test/dnsmasq.pid "
                    "--dhcp-leasefile=/run/test/leases --log-facility=/run/test/dnsmasq.log");
}

TEST_F(NetworkOnALan, AddressFollowsDhcpLeaseAndCarrier) {
    ASSERT_TRUE(
        succeeds("mount --bind /bin/bash /bin/sh")); // dash would let blocked signals through by itself
    ASSERT_TRUE(plugCable() && startDhcpServer());
    NetIpLog listener;
    const Output output;
    tNetIPHelper helper(true, "eth0", "10.5.0.9", "255.255.0.0");
    helper.AddNetIPListener(&listener);
    EXPECT_TRUE(listener.lastBecomes("eth0 10.5.0.50 dhcp"));
    EXPECT_THAT(listener.all(), ElementsAre("eth0 0.0.0.0", "eth0 0.0.0.0", "eth0 10.5.0.50 dhcp"))
        << "added, restarted, lease";
    EXPECT_EQ(helper.GetNetIP(), "10.5.0.50");
    EXPECT_THAT(outputOf("ip -4 addr show eth0"),
                HasSubstr("inet 10.5.0.9/16 brd 10.5.255.255 scope global eth0:0"))
        << "the manual address is kept as an alias";

    ASSERT_TRUE(succeeds("pkill -USR2 udhcpc")); // gives the lease back, and takes every address off
    EXPECT_TRUE(listener.lastBecomes("eth0 10.5.0.9"));
    ASSERT_TRUE(comesTrue([] { return net::localIfaName(net::transAddr("10.5.0.9")) == "eth0:0"; }));

    listener.clear();
    ASSERT_TRUE(succeeds("ip -n far link set far0 down"));
    EXPECT_TRUE(listener.lastBecomes("eth0 0.0.0.0"));
    EXPECT_EQ(helper.GetNetIP(), "0.0.0.0");
    ASSERT_TRUE(plugCable());
    EXPECT_TRUE(listener.lastBecomes("eth0 10.5.0.50 dhcp"));
    EXPECT_THAT(listener.all(), ElementsAre("eth0 0.0.0.0", "eth0 0.0.0.0", "eth0 10.5.0.50 dhcp"))
        << "pulled, restarted, lease";
    ASSERT_TRUE(succeeds("pkill -TERM udhcpc")) << "a client that is left running can be ended";
    EXPECT_TRUE(comesTrue([] { return !succeeds("pgrep udhcpc > /dev/null"); }));

    const std::string printed = output.out();
    for (const char* line :
         {"eth0 carrier state changed 1\r\n", "eth0 carrier state changed 0\r\n",
          "\r\nLocal Net IP: \r\nlo : 127.0.0.1\r\neth0:0 : 10.5.0.9\r\neth0 : 10.5.0.50\r\n---",
          "-network ifcfg----------------------\r\neth0 DHCP success 10.5.0.50\r\n",
          "eth0 DHCP failed, use 10.5.0.9 manual IP 10.5.0.9\r\n",
          "eth0 unconnected, have no ip 0.0.0.0\r\n"})
        EXPECT_THAT(printed, HasSubstr(line));
}

/// A NetworkManager of the test's own: its bus, its configuration, its profiles, its host name.
bool startNetworkManager() {
    std::ofstream("/run/test/bus.conf")
        << "<busconfig><type>system</type><listen>unix:path=/run/dbus/system_bus_socket</listen>"
           "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
           "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>";
    std::ofstream("/run/test/restart") << "pkill -x NetworkManager\n"
                                          "while pgrep -x NetworkManager > /dev/null; do sleep 0.05; done\n"
                                          "unshare --uts NetworkManager --debug > /run/test/log 2>&1 &\n"
                                          "until nmcli general > /dev/null 2>&1; do sleep 0.05; done\n";
    return succeeds(R"(set -e
        mount -t tmpfs none /etc/NetworkManager
        mount -t tmpfs none /var/lib/NetworkManager
        mount -o remount,ro /sys # without udev: interfaces are ready as they stand
        printf '[main]\nplugins=keyfile\ndhcp=internal\ndns=none\nhostname-mode=none\nauth-polkit=false\n' \
            > /etc/NetworkManager/NetworkManager.conf
        mkdir /run/dbus
        dbus-daemon --config-file=/run/test/bus.conf --fork
        timeout 30 sh /run/test/restart)");
}

std::string profiles() {
    return outputOf("nmcli -g name,type connection show | sed -n 's/:802-3-ethernet$//p'");
}
bool isInProfile(const std::string& fields, const std::string& values) {
    return comesTrue([&] { return outputOf("nmcli -g " + fields + " connection show eth0") == values; }, 30s);
}

TEST_F(NetworkOnALan, NetworkManagerKeepsOneProfileOfTheInterface) {
    if (!succeeds("command -v NetworkManager nmcli dbus-daemon dnsmasq > /dev/null"))
        GTEST_SKIP() << "network-manager, dbus-daemon or dnsmasq-base is not installed";
    ASSERT_TRUE(startNetworkManager()) << outputOf("cat /run/test/log");
    tNetIPHelper::SetNetworkToolType(true);
    tNetIPHelper::NetResetCmd("timeout 30 sh /run/test/restart");
    ASSERT_TRUE(plugCable() && startDhcpServer());
    ASSERT_TRUE(comesTrue([] { return profiles() == "Wired connection 1\n"; }, 30s)) << profiles();
    {
        const Output output;
        NetIpLog listener;
        tNetIPHelper helper(false, "eth0", "10.5.0.9", "255.255.0.0");
        helper.AddNetIPListener(&listener);
        EXPECT_TRUE(listener.lastBecomes("eth0 10.5.0.9"));
        EXPECT_EQ(profiles(), "eth0\n") << "the default one is gone";
        EXPECT_TRUE(isInProfile("connection.interface-name,ipv4.method,ipv4.addresses",
                                "eth0\nmanual\n10.5.0.9/24\n"));
        ASSERT_TRUE(
            succeeds("nmcli connection modify eth0 ipv4.addresses 10.5.0.7/24 && nmcli connection up eth0"));
        EXPECT_TRUE(isInProfile("ipv4.addresses", "10.5.0.9/24\n")) << "the manual address is put back";
        EXPECT_THAT(output.out(), Not(HasSubstr("@nmcli connection delete eth0\r\n"))) << "there was none";
        EXPECT_THAT(output.out(), HasSubstr("-network nmcli----------------------\r\neth0 DHCP closed, "
                                            "use 10.5.0.9 manual"));
    }
    NetIpLog listener;
    tNetIPHelper helper(true, "eth0", "10.5.0.9", "255.255.0.0");
    helper.AddNetIPListener(&listener);
    EXPECT_TRUE(listener.lastBecomes("eth0 10.5.0.50 dhcp"));
    EXPECT_EQ(profiles(), "eth0\n") << "the profile of the first watch is replaced";
    // Not the method: a look before the lease may change it for a moment.
    EXPECT_TRUE(isInProfile("connection.autoconnect", "yes\n"));
}

} // namespace
