// What is said of every system call of the library but those of the TCP classes (tcp_fault_test.cpp) that can
// fail.
#include "fault_fixture.h"
#include "profile_directory.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <set>

namespace {

constexpr const char* kGroup = "236.1.2.3";
constexpr const char* kBroadcast = "255.255.255.255";
constexpr const char* kFixed = "236.1.2.3,5000";

using UdpFault = FaultTest;
using DiscoveryFault = FaultTest;
using SystemFault = FaultTest;

TEST_F(UdpFault, FailedCallsOfASocketAreReportedAndLeakNothing) {
    const FaultCase sending[] = {
        {"socket", EMFILE,
         udp("SetSendSockAddr", ",0", "socket", EMFILE) + udp("SendData", ",0", "sendto", EBADF)},
        {"SO_REUSEADDR", EPERM, udp("SetSendSockAddr", ",0", "setsockopt::SO_REUSERADDR", EPERM)},
        {"sendto", ENOBUFS, udp("SendData", ",0", "sendto", ENOBUFS)},
    };
    for (const FaultCase& faultCase : sending)
        checkFault(faultCase, [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetSendSockAddr(s_local, kGroup, 5000);
            socket->SendData("x", 1);
            return socket;
        });
    checkFault(
        {"IP_ADD_MEMBERSHIP", ENODEV, udp("SetSendSockAddr", ",0", "Setsockopt IP_ADD_MEMBERSHIP", ENODEV)},
        [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetSendSockAddr(s_local, kGroup, 5000);
            return socket;
        });

    const std::string setUp = "SetGroupRecvSockAddr";
    const FaultCase receiving[] = {
        {"socket", EMFILE, udp(setUp, ",0", "socket", EMFILE)},
        {"SO_REUSEADDR", EPERM, udp(setUp, ",0", "setsockopt::SO_REUSERADDR", EPERM)},
        {"bind", EADDRINUSE, udp(setUp, kFixed, "bind", EADDRINUSE)},
        {"IP_ADD_MEMBERSHIP", ENODEV, udp(setUp, kFixed, "setsockopt::IP_ADD_MEMBERSHIP", ENODEV)},
        {"SO_RCVTIMEO", EDOM, udp(setUp, kFixed, "setsockopt::SO_RCVTIMEO", EDOM)},
        {"pthread_create", EAGAIN, udp("launchThread", kFixed, "thread", EAGAIN)},
        {"recvfrom", ENOMEM, udp("operator()", kFixed, "recvfrom", ENOMEM)},
        {"recvfrom", EAGAIN, ""},
    };
    for (const FaultCase& faultCase : receiving)
        checkFault(faultCase, [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetGroupRecvSockAddr(s_local, kGroup, 5000);
            return socket;
        });
}

TEST_F(UdpFault, FailedCallsOfASenderAreReportedAndLeakNothing) {
    const auto broadcast = std::string(kBroadcast) + ",5000";
    const struct {
        const char* address;
        FaultCase faultCase;
    } rows[] = {
        {kGroup, {"socket", EMFILE, udp("UdpSenderPrivate", kFixed, "socket", EMFILE)}},
        {kGroup, {"SO_REUSEADDR", EPERM, udp("UdpSenderPrivate", kFixed, "setsockopt::SO_REUSEADDR", EPERM)}},
        {kBroadcast,
         {"SO_BROADCAST", EPERM,
          udp("UdpSenderPrivate", broadcast, "setsockopt::SO_BROADCAST", EPERM) +
              udp("sendData", broadcast, "sendto", EACCES) +
              udp("sendMultipleDatas", broadcast, "sendmmsg", EACCES)}},
        {kGroup,
         {"IP_MULTICAST_IF", ENODEV, udp("UdpSenderPrivate", kFixed, "setsockopt::IP_MULTICAST_IF", ENODEV)}},
        {kGroup,
         {"IP_MULTICAST_LOOP", EPERM,
          udp("UdpSenderPrivate", kFixed, "setsockopt::IP_MULTICAST_LOOP", EPERM)}},
        {kGroup,
         {"IP_MULTICAST_LOOP", EPERM, udp("setMulticastLoop", kFixed, "setsockopt::IP_MULTICAST_LOOP", EPERM),
          2}},
        {kGroup, {"bind", EADDRINUSE, udp("UdpSenderPrivate", kFixed, "bind", EADDRINUSE)}},
        {kGroup, {"sendto", EHOSTUNREACH, udp("sendData", kFixed, "sendto", EHOSTUNREACH)}},
        {kGroup, {"sendto", ENODEV, ""}}, // the interface was replaced: sent again
        {kGroup, {"sendmmsg", EHOSTUNREACH, udp("sendMultipleDatas", kFixed, "sendmmsg", EHOSTUNREACH)}},
        {kGroup, {"sendto", ENETUNREACH, ""}},
        {kGroup, {"sendmmsg", ENODEV, ""}},
    };
    for (const auto& row : rows)
        checkFault(row.faultCase, [&] {
            auto sender = std::make_unique<net::UdpSender>(row.address, 5000, s_local, 0);
            sender->setMulticastLoop(true);
            sender->sendData("x", 1);
            sender->sendMultipleDatas({{"x", 1}, {"y", 1}});
            return sender;
        });
}

TEST_F(UdpFault, FailedCallsOfAReceiverAreReportedAndLeakNothing) {
    const std::string setUp = "UdpReceiverPrivate";
    const struct {
        wire::Group group;
        FaultCase faultCase;
    } rows[] = {
        {{kGroup, 5000}, {"socket", EMFILE, udp(setUp, kFixed, "socket", EMFILE)}},
        {{kGroup, 5000}, {"SO_REUSEADDR", EPERM, udp(setUp, kFixed, "setsockopt::SO_REUSEADDR", EPERM)}},
        {{kGroup, 5000}, {"SO_RCVBUF", ENOBUFS, udp(setUp, kFixed, "setsockopt::SO_RCVBUF", ENOBUFS)}},
        {{kGroup, 5000},
         {"SO_RCVBUF", ENOBUFS, udp("growReceiveBuffer", kFixed, "setsockopt::SO_RCVBUF", ENOBUFS), 2}},
        {{kGroup, 5000}, {"bind", EADDRNOTAVAIL, udp(setUp, kFixed, "bind", EADDRNOTAVAIL)}},
        {{kBroadcast, 5000},
         {"SO_BROADCAST", EPERM,
          udp(setUp, kBroadcast + std::string(",5000"), "setsockopt::SO_BROADCAST", EPERM)}},
        {{kGroup, 5000},
         {"IP_ADD_MEMBERSHIP", ENODEV, udp(setUp, kFixed, "setsockopt::IP_ADD_MEMBERSHIP", ENODEV)}},
        {{kGroup, 5000},
         {"SO_BINDTODEVICE", EPERM, udp(setUp, kFixed, "setsockopt::SO_BINDTODEVICE", EPERM)}},
        {{kGroup, 5000}, {"SO_RCVTIMEO", EDOM, udp(setUp, kFixed, "setsockopt::SO_RCVTIMEO", EDOM)}},
        {{kGroup, 5000}, {"pthread_create", EAGAIN, udp(setUp, kFixed, "thread", EAGAIN)}},
        {{kGroup, 5000}, {"recvfrom", ENOMEM, udp("recvThread", kFixed, "recvfrom", ENOMEM)}},
        {{kGroup, 5000}, {"recvfrom", 0, ""}},
        {{kGroup, 5000}, {"posix_spawn", ENOMEM, ""}},
        {{kGroup, 5000},
         {"SO_RCVBUF", 0,
          "UdpReceiver: the system grants 10240 of 262144 bytes of receive buffer (net.core.rmem_max), "
          "many radars at once may not all be heard\n",
          2}},
    };
    for (const auto& row : rows)
        checkFault(row.faultCase, [&] { return net::detail::makeReceiver(&s_recorder, row.group, s_local); });
}

TEST_F(UdpFault, FailedCallsOfACheckerAreReportedAndLeakNothing) {
    const FaultCase rows[] = {
        {"pthread_create", EAGAIN, udp("operator()", kFixed, "thread", EAGAIN)},
        {"pthread_create", EAGAIN, udp("operator()", kFixed, "thread", EAGAIN), 2},
        {"getifaddrs", ENOMEM, std::string("get ifAddrs: ") + std::strerror(ENOMEM) + "\n"},
        {"socket", EMFILE, udp("operator()", kFixed, "socket", EMFILE)},
        {"SO_REUSEADDR", EPERM, udp("operator()", kFixed, "setsockopt::SO_REUSERADDR", EPERM)},
        {"IP_MULTICAST_ALL", EPERM, udp("operator()", kFixed, "setsockopt::IP_MULTICAST_ALL", EPERM)},
        {"bind", EADDRINUSE, udp("operator()", kFixed, "bind", EADDRINUSE)},
        {"IP_ADD_MEMBERSHIP", ENODEV, udp("operator()", kFixed, "setsockopt::IP_ADD_MEMBERSHIP", ENODEV)},
        {"SO_RCVTIMEO", EDOM, udp("operator()", kFixed, "setsockopt::SO_RCVTIMEO", EDOM)},
        {"recv", ENOMEM, ""},
    };
    for (const FaultCase& faultCase : rows)
        checkFault(faultCase, [] { return std::make_unique<net::UdpChecker>(kGroup, 5000, "radar"); });
}

TEST_F(SystemFault, FailedInterfaceQueriesAreReportedAndLeakNothing) {
    const auto all = [] {
        char mac[32] = "";
        char name[] = "eth0";
        net::getMac(mac, name);
        return std::make_unique<size_t>(net::localIpSet().size() + net::localNetworkInterfaces().size());
    };
    const auto text = [](const char* what, int code) {
        return what + (": " + std::string(std::strerror(code))) + "\n";
    };
    checkFault({"getifaddrs", ENOMEM, text("get ifAddrs", ENOMEM), 1}, all);
    checkFault({"getifaddrs", ENOMEM, text("get ifAddrs", ENOMEM), 2}, all);
    checkFault({"socket", EMFILE, text("socket ", EMFILE)}, all);
    checkFault({"ioctl", ENODEV, text("ioctl ", ENODEV)}, all);

    const Output output;
    {
        const Fault fault("getifaddrs", ENOMEM, 1, 2);
        EXPECT_TRUE(net::localNetworkInterfaces().empty());
        EXPECT_EQ(net::localIpSet(), std::set<unsigned int>{0});
    }
    const Fault fault("ioctl", ENODEV, 1, Fault::kAll);
    EXPECT_EQ(net::localMac(s_local), "");
}

// That sockets and threads are refused to a display or host, resource_test shows; here is what they say
// themselves.
TEST_F(DiscoveryFault, WhatADisplayOrHostCannotDoNowIsSaidAndLeaksNothing) {
    const std::string reason = std::strerror(EAGAIN);
    const std::pair<const char*, FaultCase> displays[] = {
        {"[Local]\nIP = 10.1.0.1\n[Radar]\nIP = 10.1.0.9\n",
         {"pthread_create", EAGAIN,
          "MultiRadarClient: cannot listen for radars now (" + reason + "), will try again\n", 2}},
        {"[Radar]\nIP = 10.1.0.9\n",
         {"pthread_create", EAGAIN,
          "MultiRadarClient: 10.1.0.1 is not searched this time: no thread (" + reason + ")\n", 2}},
    };
    for (const auto& [text, faultCase] : displays) {
        const ProfileDirectory profile(text);
        checkFault(faultCase, [] { return std::make_unique<MultiRadarClient>(); });
    }
    // An objection makes it negotiate again, which needs another thread.
    checkFault({"pthread_create", EAGAIN,
                "HostNegotiator: keeps host id 16: no thread to negotiate another (" + reason + ")\n", 2},
               [] {
                   auto negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
                   EXPECT_EQ(negotiator->syncLogin(16), 16);
                   net::UdpSender other("236.6.7.4", 6768, s_local, 0);
                   other.setMulticastLoop(true);
                   other.sendData("\x03\xA1\x10\x01", 4);
                   return negotiator;
               });
}

TEST_F(SystemFault, CommandThatCannotRunHasFailed) {
    const Output output;
    const Fault fault("system", EAGAIN);
    EXPECT_FALSE(net::tNetIPHelper::SystemCmd("true", true));
    EXPECT_TRUE(net::tNetIPHelper::SystemCmd("true", true));
    EXPECT_EQ(output.out(), "@true\r\n");
}

} // namespace
