// Every call of the library but the TCP classes (tcp_fault_test.cpp) that the system can refuse.
#include "profile_directory.h"
#include "refused.h"

#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/tcpsocket.h>

#include <functional>
#include <set>
#include <system_error>

namespace {

constexpr const char* kGroup = "236.1.2.3";
constexpr const char* kBroadcast = "255.255.255.255";
constexpr const char* kFixed = "236.1.2.3,5000";

using UdpFault = Refused;
using DiscoveryFault = Refused;
using SystemFault = Refused;

TEST_F(UdpFault, OfASocket) {
    const Refusal sending[] = {
        {"socket", EMFILE,
         udp("SetSendSockAddr", ",0", "socket", EMFILE) + udp("SendData", ",0", "sendto", EBADF)},
        {"SO_REUSEADDR", EPERM, udp("SetSendSockAddr", ",0", "setsockopt::SO_REUSERADDR", EPERM)},
        {"sendto", ENOBUFS, udp("SendData", ",0", "sendto", ENOBUFS)},
    };
    for (const Refusal& refusal : sending)
        refuse(refusal, [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetSendSockAddr(s_local, kGroup, 5000);
            socket->SendData("x", 1);
            return socket;
        });
    refuse(
        {"IP_ADD_MEMBERSHIP", ENODEV, udp("SetSendSockAddr", ",0", "Setsockopt IP_ADD_MEMBERSHIP", ENODEV)},
        [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetSendSockAddr(s_local, kGroup, 5000);
            return socket;
        });

    const std::string setUp = "SetGroupRecvSockAddr";
    const Refusal receiving[] = {
        {"socket", EMFILE, udp(setUp, ",0", "socket", EMFILE)},
        {"SO_REUSEADDR", EPERM, udp(setUp, ",0", "setsockopt::SO_REUSERADDR", EPERM)},
        {"bind", EADDRINUSE, udp(setUp, kFixed, "bind", EADDRINUSE)},
        {"IP_ADD_MEMBERSHIP", ENODEV, udp(setUp, kFixed, "setsockopt::IP_ADD_MEMBERSHIP", ENODEV)},
        {"SO_RCVTIMEO", EDOM, udp(setUp, kFixed, "setsockopt::SO_RCVTIMEO", EDOM)},
        {"pthread_create", EAGAIN, udp("launchThread", kFixed, "thread", EAGAIN)},
        {"recvfrom", ENOMEM, udp("operator()", kFixed, "recvfrom", ENOMEM)},
        {"recvfrom", EAGAIN, ""},
    };
    for (const Refusal& refusal : receiving)
        refuse(refusal, [] {
            auto socket = std::make_unique<net::UdpSocket>(&s_recorder, 64);
            socket->SetGroupRecvSockAddr(s_local, kGroup, 5000);
            return socket;
        });
}

TEST_F(UdpFault, OfASender) {
    const auto broadcast = std::string(kBroadcast) + ",5000";
    const struct {
        const char* address;
        Refusal refusal;
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
        refuse(row.refusal, [&] {
            auto sender = std::make_unique<net::UdpSender>(row.address, 5000, s_local, 0);
            sender->setMulticastLoop(true);
            sender->sendData("x", 1);
            sender->sendMultipleDatas({{"x", 1}, {"y", 1}});
            return sender;
        });
}

TEST_F(UdpFault, OfAReceiver) {
    const std::string setUp = "UdpReceiverPrivate";
    const struct {
        wire::Group group;
        Refusal refusal;
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
        {{kGroup, 5000}, {"system", ENOMEM, ""}},
    };
    for (const auto& row : rows)
        refuse(row.refusal, [&] { return net::detail::makeReceiver(&s_recorder, row.group, s_local); });
}

TEST_F(UdpFault, OfAChecker) {
    const Refusal rows[] = {
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
    for (const Refusal& refusal : rows)
        refuse(refusal, [] { return std::make_unique<net::UdpChecker>(kGroup, 5000, "radar"); });
}

TEST_F(SystemFault, OfTheInterfaceTable) {
    const auto all = [] {
        char mac[32] = "";
        char name[] = "eth0";
        net::getMac(mac, name);
        return std::make_unique<size_t>(net::localIpSet().size() + net::localNetworkInterfaces().size());
    };
    const auto text = [](const char* what, int code) {
        return what + (": " + std::string(std::strerror(code))) + "\n";
    };
    refuse({"getifaddrs", ENOMEM, text("get ifAddrs", ENOMEM), 1}, all);
    refuse({"getifaddrs", ENOMEM, text("get ifAddrs", ENOMEM), 2}, all);
    refuse({"socket", EMFILE, text("socket ", EMFILE)}, all);
    refuse({"ioctl", ENODEV, text("ioctl ", ENODEV)}, all);

    const Output output;
    {
        const Fault fault("getifaddrs", ENOMEM, 1, 2);
        EXPECT_TRUE(net::localNetworkInterfaces().empty());
        EXPECT_EQ(net::localIpSet(), std::set<unsigned int>{0});
    }
    const Fault fault("ioctl", ENODEV, 1, Fault::kAll);
    EXPECT_EQ(net::localMac(s_local), "");
}

TEST_F(SystemFault, OfAClientOrWatcherThatNeedsAThreadIsThrownAndLeavesNothing) {
    const auto throws = [](const char* what, int first, const std::function<void()>& make) {
        const Holdings before = Holdings::now();
        {
            const Output output;
            const Fault fault("pthread_create", EAGAIN, first);
            EXPECT_THROW(make(), std::system_error) << what;
        }
        EXPECT_TRUE(comesTrue([&] { return Holdings::now() == before; })) << what;
    };
    for (const int first : {1, 2})
        throws("TcpClient", first, [&] { net::TcpClient(nullptr, "127.0.0.1", 5000, 0); });
    throws("MultiRadarClient", 1, [] { MultiRadarClient(); });
    throws("tNetIPHelper", 1, [] { net::tNetIPHelper(false, "eth9", "10.5.0.9", "255.255.255.0"); });

    HostNegotiator negotiator(nullptr, nullptr);
    throws("HostNegotiator", 1, [&] { negotiator.asyncLogin(16); });
    EXPECT_TRUE(negotiator.asyncLogin(16)) << "as if it had not been asked";
    EXPECT_FALSE(negotiator.asyncLogin(16));
}

TEST_F(DiscoveryFault, OfADisplay) {
    const std::string discovery = "236.6.7.5,6878";
    const std::string negotiation = "236.6.7.4,6768";
    const struct {
        const char* profile;
        Refusal refusal;
    } rows[] = {
        {"[Local]\nIP = 10.1.0.1\n",
         {"socket", EMFILE, udp("UdpSenderPrivate", negotiation, "socket", EMFILE), 1}},
        {"[Local]\nIP = 10.1.0.1\n",
         {"socket", EMFILE, udp("UdpSenderPrivate", discovery, "socket", EMFILE), 2}},
        {"[Local]\nIP = 10.1.0.1\n",
         {"socket", EMFILE, udp("UdpReceiverPrivate", discovery, "socket", EMFILE), 3}},
        {"[Local]\nIP = 10.1.0.1\n",
         {"pthread_create", EAGAIN, udp("UdpReceiverPrivate", discovery, "thread", EAGAIN), 2}},
        {"[Local]\nIP = 10.1.0.1\n[Radar]\nIP = 10.1.0.9\n",
         {"pthread_create", EAGAIN,
          "MultiRadarClient: cannot listen for radars now (" + std::string(std::strerror(EAGAIN)) +
              "), will try again\n",
          2}},
        {"[Radar]\nIP = 10.1.0.9\n",
         {"pthread_create", EAGAIN,
          "MultiRadarClient: 10.1.0.1 is not searched this time: no thread (" +
              std::string(std::strerror(EAGAIN)) + ")\n",
          2}},
    };
    for (const auto& row : rows) {
        const ProfileDirectory profile(row.profile);
        refuse(row.refusal, [] { return std::make_unique<MultiRadarClient>(); });
    }
}

TEST_F(DiscoveryFault, OfAHost) {
    const std::string discovery = "236.6.7.5,6878";
    const Refusal serving[] = {
        {"socket", EMFILE, udp("UdpSenderPrivate", discovery, "socket", EMFILE), 1},
        {"socket", EMFILE, udp("UdpReceiverPrivate", discovery, "socket", EMFILE), 2},
        {"pthread_create", EAGAIN, udp("UdpReceiverPrivate", discovery, "thread", EAGAIN)},
    };
    for (const Refusal& refusal : serving)
        refuse(refusal, [] { return std::make_unique<HostServer>("North", 16, 2); });

    const std::string negotiation = "236.6.7.4,6768";
    const Refusal negotiating[] = {
        {"socket", EMFILE, udp("UdpSenderPrivate", negotiation, "socket", EMFILE), 1},
        {"socket", EMFILE, udp("UdpReceiverPrivate", negotiation, "socket", EMFILE), 2},
        {"pthread_create", EAGAIN, udp("UdpReceiverPrivate", negotiation, "thread", EAGAIN)},
        {"sendto", EHOSTUNREACH, udp("sendData", negotiation, "sendto", EHOSTUNREACH)},
    };
    for (const Refusal& refusal : negotiating)
        refuse(refusal, [] {
            auto negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
            negotiator->asyncLogin(16);
            return negotiator;
        });

    // An objection makes it negotiate anew: the third thread, where there is one.
    refuse({"pthread_create", EAGAIN,
            "HostNegotiator: keeps host id 16: no thread to negotiate another (" +
                std::string(std::strerror(EAGAIN)) + ")\n",
            2},
           [] {
               auto negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
               EXPECT_EQ(negotiator->syncLogin(16), 16);
               net::UdpSender other("236.6.7.4", 6768, s_local, 0);
               other.setMulticastLoop(true);
               other.sendData("\x03\xA1\x10\x01", 4);
               return negotiator;
           });
}

TEST_F(SystemFault, OfACommandIsAFailedCommand) {
    const Output output;
    const Fault fault("system", EAGAIN);
    EXPECT_FALSE(net::tNetIPHelper::SystemCmd("true", true));
    EXPECT_TRUE(net::tNetIPHelper::SystemCmd("true", true));
    EXPECT_EQ(output.out(), "@true\r\n");
}

} // namespace
