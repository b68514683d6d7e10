// Every call of the library that the system can refuse is refused once: the line that says so appears,
// exactly and alone, and the object that made the call leaves nothing behind.
#include "faults.h"
#include "profile_directory.h"
#include "recorder.h"
#include "tcp_support.h"
#include "wait.h"

#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/interfaces.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/netiphelper.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <regex>
#include <system_error>

namespace {

using tcp_test::Listening;
using tcp_test::Notes;
using tcp_test::Peer;

constexpr const char* kGroup = "236.1.2.3";
constexpr const char* kBroadcast = "255.255.255.255";
constexpr const char* kFixed = "236.1.2.3,5000";

/// The line without its number, which only those of the TCP classes keep.
std::string line(const std::string& site, const std::string& configured, const std::string& call, int code) {
    return "SocketError<UdpSocket/" + site + ",(" + configured + ")>:\n\tfunction[" + call + "],code[" +
           std::to_string(code) + "," + std::strerror(code) + "]\n";
}
std::string udp(const std::string& function, const std::string& configured, const std::string& call,
                int code) {
    return line("udpsocket.cpp," + function + ",N", configured, call, code);
}
std::string tcp(const std::string& site, const std::string& configured, const std::string& call, int code) {
    return line("tcpsocket.cpp," + site, configured, call, code);
}
std::string withoutUdpNumbers(const std::string& text) {
    static const std::regex number("(udpsocket\\.cpp,[A-Za-z()]+),[0-9]+,");
    return std::regex_replace(text, number, "$1,N,");
}

struct Refusal {
    const char* call;
    int code;
    std::string expected; // on standard error
    int first = 1;
    std::string printed{}; // part of what is on standard output
    int count = 1;
};

/// One interface, eth0, with the address 10.1.0.1/24.
class Refused : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(std::system("ip link show eth0 > /dev/null 2>&1 || "
                              "(ip link add eth0 type veth peer name far && ip link set far up && "
                              "ip addr add 10.1.0.1/24 brd + dev eth0 && ip link set eth0 up && "
                              "ip route add 224.0.0.0/4 dev eth0)"),
                  0);
    }

    /// @param use makes the object, has it make the call, and returns what is to be destroyed
    template <class Use>
    static void refuse(const Refusal& refusal, Use use) {
        SCOPED_TRACE(std::string(refusal.call) + ", number " + std::to_string(refusal.first));
        const Holdings before = Holdings::now();
        std::string errors;
        std::string printed;
        bool hit = false;
        {
            const Output output;
            {
                const Fault fault(refusal.call, refusal.code, refusal.first, refusal.count);
                [[maybe_unused]] const auto kept = use();
                hit = comesTrue(
                    [&] { return fault.hit() && withoutUdpNumbers(output.err()) == refusal.expected; },
                    std::chrono::seconds(10));
            }
            errors = output.err();
            printed = output.out();
        }
        EXPECT_TRUE(hit);
        EXPECT_EQ(withoutUdpNumbers(errors), refusal.expected);
        EXPECT_NE(printed.find(refusal.printed), std::string::npos) << printed;
        EXPECT_TRUE(comesTrue([&] { return Holdings::now() == before; }))
            << Holdings::now().descriptors - before.descriptors << " descriptors and "
            << Holdings::now().threads - before.threads << " threads left";
    }

    static inline const unsigned int s_local = net::transAddr("10.1.0.1");
    static inline Recorder s_recorder;
};

using UdpFault = Refused;
using TcpFault = Refused;
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
        {kGroup, {"sendto", ENETUNREACH, udp("sendData", kFixed, "sendto", ENETUNREACH)}},
        {kGroup, {"sendto", ENODEV, ""}}, // the interface was replaced: sent again
        {kGroup, {"sendmmsg", ENETUNREACH, udp("sendMultipleDatas", kFixed, "sendmmsg", ENETUNREACH)}},
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

TEST_F(TcpFault, OfAServer) {
    const std::string before = "0.0.0.0,0"; // no address is stored yet
    const auto code = [](const char* call, const char* site, int number, const std::string& configured) {
        return tcp(site, configured, call, number);
    };
    const unsigned short port = tcp_test::freePort();
    const std::string bound = "127.0.0.1," + std::to_string(port);
    const Refusal refused[] = {
        {"socket", EMFILE, code("socket", "init,226", EMFILE, before)},
        {"SO_REUSEADDR", EPERM, code("setsockopt::SO_REUSERADDR", "init,233", EPERM, before)},
        {"bind", EADDRINUSE, code("bind", "init,241", EADDRINUSE, bound)},
        {"listen", EADDRINUSE, code("listen", "init,246", EADDRINUSE, bound)},
        {"pthread_create", EAGAIN, code("thread", "init,246", EAGAIN, bound), 1},
        {"pthread_create", EAGAIN, code("thread", "init,246", EAGAIN, bound), 2},
    };
    for (const Refusal& refusal : refused)
        refuse(refusal, [&] {
            auto server = std::make_unique<net::TcpServer>(nullptr);
            EXPECT_FALSE(server->connect("127.0.0.1", port, 5));
            return server;
        });

    const Refusal serving[] = {
        {"poll", ENOMEM, code("select::rfds", "operator(),452", ENOMEM, bound)},
        {"accept4", EMFILE, code("accept", "operator(),466", EMFILE, bound)},
        {"accept4", EAGAIN, ""},
        {"SO_RCVTIMEO", EDOM, code("setsockopt::SO_RCVTIMEO", "operator(),503", EDOM, bound),
         2}, // behind the peer's
        {"SO_SNDTIMEO", EDOM, code("setsockopt::SO_SNDTIMEO", "operator(),506", EDOM, bound)},
        {"pthread_create", EAGAIN, code("thread", "operator(),466", EAGAIN, bound), 3, "disconnect ..."},
        {"recv", ECONNRESET, "", 1, "disconnect ..."},
    };
    for (const Refusal& refusal : serving)
        refuse(refusal, [&] {
            auto server = std::make_unique<net::TcpServer>(nullptr);
            EXPECT_TRUE(server->connect("127.0.0.1", port, 5));
            return std::pair(std::move(server), std::make_unique<Peer>(port));
        });

    const Refusal sending[] = {
        {"send", ENOBUFS, code("send", "operator(),296", ENOBUFS, bound), 1},
        {"send", 0, "", 1, "Server send 0Byte\n", 2}, // at once, and waiting for the client
        {"sendmsg", ENOBUFS, code("send", "operator(),331", ENOBUFS, bound), 1},
        {"sendmsg", 0, "", 1, "Server send 0Byte\n", 2},
        {"send", EPIPE, "", 2, "error!\n"},
        {"send", 0, "", 2, "0Byte!\n"},
        {"send", EPIPE, "", 3, " error!\n"},
        {"send", 0, "", 3, " 0Byte!\n"},
    };
    for (const Refusal& refusal : sending)
        refuse(refusal, [&] {
            auto notes = std::make_unique<Notes>();
            auto server = std::make_unique<net::TcpServer>(notes.get());
            EXPECT_TRUE(server->connect("127.0.0.1", port, 5));
            auto peer = std::make_unique<Peer>(port);
            EXPECT_TRUE(notes->connected.reaches(1));
            server->sendData("all", 3);
            server->sendMultipleDatas({{"a", 1}, {"ll", 2}});
            server->sendData(std::stoi(notes->connected.all().front()), "one", 3);
            server->sendData("127.0.0.1", peer->port(), "one", 3);
            return std::tuple(std::move(notes), std::move(server), std::move(peer));
        });

    // What a client does not take at once has a thread of its own, or waits for it on the caller's.
    refuse({"pthread_create", EAGAIN, "", 4}, [&] {
        auto notes = std::make_unique<Notes>();
        auto server = std::make_unique<net::TcpServer>(notes.get());
        EXPECT_TRUE(server->connect("127.0.0.1", port, 5));
        auto peer = std::make_unique<Peer>(port);
        peer->send("x");
        EXPECT_TRUE(notes->hears("x"));
        const std::string large(std::size_t{1} << 24, 'x');
        server->sendData(large.data(), static_cast<unsigned int>(large.size()));
        return std::tuple(std::move(notes), std::move(server), std::move(peer));
    });
}

TEST_F(TcpFault, OfAClient) {
    const auto listening = std::make_unique<Listening>();
    const std::string configured = "127.0.0.1," + std::to_string(listening->port());
    const unsigned int loopback = net::transAddr("127.0.0.1");
    const auto client = [&] {
        return std::make_unique<net::TcpClient>(nullptr, "127.0.0.1", listening->port(), loopback);
    };

    // A socket is made by two threads at first, so what fails once may be good at the next attempt.
    const Refusal making[] = {
        {"socket", EMFILE, tcp("reset,783", configured, "socket", EMFILE)},
        {"SO_BINDTODEVICE", EPERM, tcp("reset,810", configured, "setsockopt::SO_BINDTODEVICE", EPERM)},
        {"SO_RCVTIMEO", EDOM, tcp("reset,822", configured, "setsockopt::SO_RCVTIMEO", EDOM)},
        {"connect", ECONNREFUSED, "", 1, "tcp client connected failed ..."},
        {"fcntl", EPERM, "", 1, "tcp client connected failed ..."},
    };
    for (const Refusal& refusal : making)
        refuse(refusal, [&] {
            auto made = client();
            made->connectOnce();
            EXPECT_TRUE(made->connectOnce());
            return made;
        });

    refuse({"poll", ENOMEM, "", 1, "tcp client connected failed ..."}, [] {
        auto silent = std::make_unique<net::TcpClient>(nullptr, "10.1.0.99", 5000, 0);
        EXPECT_FALSE(silent->connectOnce());
        return silent;
    });

    const Refusal connected[] = {
        {"pthread_create", EAGAIN, tcp("receiveThread,856", configured, "thread", EAGAIN), 3},
        {"recv", 0, tcp("receiveThread,839", configured, "peer closed connection", 0), 1,
         "receive thread out ...."},
        {"recv", ENOMEM, tcp("receiveThread,856", configured, "recv error", ENOMEM), 1,
         "receive thread out ...."},
        {"recv", EAGAIN, ""},
        {"send", ENOBUFS, tcp("sendData,702", configured, "send", ENOBUFS), 1,
         "tcp client send error -1\r\n"},
        {"send", 0, tcp("sendData,702", configured, "send", 0), 1, "tcp client send error 0\r\n"},
        {"sendmsg", ENOBUFS, tcp("sendMultipleDatas,724", configured, "send", ENOBUFS), 1,
         "tcp client writev error -1\r\n"},
    };
    for (const Refusal& refusal : connected)
        refuse(refusal, [&] {
            auto made = client();
            made->connectOnce();
            made->sendMultipleDatas({{"a", 1}, {"b", 1}});
            made->asyncSendData("queued", 6);
            return made;
        });
}

TEST_F(SystemFault, OfAClientOrWatcherThatNeedsAThreadIsThrownAndLeavesNothing) {
    const unsigned short port = tcp_test::freePort();
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
        throws("TcpClient", first, [&] { net::TcpClient(nullptr, "127.0.0.1", port, 0); });
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
        {"sendto", ENETUNREACH, udp("sendData", negotiation, "sendto", ENETUNREACH)},
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
