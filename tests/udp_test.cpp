#include "commands.h"
#include "faults.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "records.h"

#include <UdpSocket/base/command.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/netiphelper.h>
#include <UdpSocket/transport/protocol_sockets.h>

namespace {

using testing::FieldsAre;
using testing::MatchesRegex;
using testing::Optional;

constexpr const char* kGroup = "236.1.2.3";

class Udp : public OneInterface {
protected:
    static std::vector<int> sockets() {
        std::vector<int> found;
        struct stat status {};
        for (int fd = 3; fd < 64; ++fd)
            if (::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
                found.push_back(fd);
        return found;
    }

    const unsigned int m_local = net::transAddr("10.1.0.1");
    const unsigned int m_foreignIp = net::transAddr("10.9.9.9");
    Recorder m_recorder;
};

TEST_F(Udp, MulticastReachesReceiversOfTheSameMachineOnlyWhenLooped) {
    net::UdpReceiver receiver(&m_recorder, m_local, kGroup, 5000, 64);
    net::UdpSender sender(kGroup, 5000, m_local, 5001);
    EXPECT_EQ(errOf([&] { net::UdpSender(kGroup, 5000, m_local, 5001); }), "") << "two may have a port";
    sender.sendData("unheard", 7);
    sender.setMulticastLoop(true);
    sender.sendData("heard", 5);
    EXPECT_THAT(m_recorder.next(), Optional(FieldsAre("10.1.0.1:5001", "236.1.2.3:5000", "heard")));

    const ProfileDirectory profile("[Local]\nMulticastLoop = true\n");
    const net::UdpSender looped(endpoint(kGroup, 5000), m_local, 0);
    EXPECT_EQ(looped.sendData("by profile", 10), 10);
    EXPECT_EQ(m_recorder.nextBytes(), "by profile");
    EXPECT_STREQ(looped.addr(), kGroup);
    EXPECT_EQ(looped.port(), 5000);
}

TEST_F(Udp, SeveralDatagramsAreSentInOrder) {
    const net::UdpReceiver receiver(&m_recorder, m_local, endpoint("10.1.0.1", 5000), 1000);
    net::UdpSender sender("10.1.0.1", 5000, m_local, 0);
    const std::string longer(1500, 'x');
    EXPECT_EQ(sender.sendMultipleDatas({{"one", 3}, {"two", 3}, {longer.data(), 1500}}), 3);
    EXPECT_EQ(m_recorder.nextBytes(), "one");
    EXPECT_EQ(m_recorder.nextBytes(), "two");
    EXPECT_EQ(m_recorder.nextBytes(), longer.substr(0, 1000)) << "cut to the receiver's buffer";
    EXPECT_EQ(sender.sendMultipleDatas({}), 0);
    EXPECT_STREQ(receiver.addr(), "10.1.0.1");
    EXPECT_EQ(receiver.port(), 5000);
}

TEST_F(Udp, OnlyTheAllOnesAddressIsBroadcastAndOnlyTheMulticastRangeIsJoined) {
    const net::UdpSender all("255.255.255.255", 5000, m_local, 0);
    EXPECT_EQ(all.sendData("all", 3), 3);
    const net::UdpSender subnet("10.1.0.255", 5000, m_local, 0);
    EXPECT_THAT(errOf([&] { EXPECT_EQ(subnet.sendData("subnet", 6), -1); }), HasSubstr("Permission denied"));
    for (const auto& [address, joins] : {std::pair{"224.0.0.0", true},
                                         {"239.255.255.255", true},
                                         {"240.0.0.1", false},
                                         {"223.255.255.255", false},
                                         {"255.255.255.255", false}}) {
        // Joining on an address that no interface has fails, which shows that it was tried.
        const std::string errors =
            errOf([&, group = address] { net::UdpReceiver(nullptr, m_foreignIp, group, 5000, 64); });
        EXPECT_EQ(errors.find("IP_ADD_MEMBERSHIP") != std::string::npos, joins) << address;
    }
    const Fault fault("SO_BROADCAST", EPERM, 1, 2);
    const std::string refused = ",(255.255.255.255,5000)>:\n\tfunction[setsockopt::SO_BROADCAST],code[1,";
    EXPECT_THAT(errOf([&] { net::UdpSender("255.255.255.255", 5000, m_local, 0); }),
                HasSubstr("UdpSenderPrivate,266" + refused));
    EXPECT_THAT(errOf([&] { net::UdpReceiver(nullptr, m_local, "255.255.255.255", 5000, 64); }),
                HasSubstr("UdpReceiverPrivate,454" + refused));
}

TEST_F(Udp, DiscoveryReceiversHaveRoomForAFullPlanOfAnswersOrSaySo) {
    const auto bufferSize = [](const auto&) {
        int size = 0;
        socklen_t length = sizeof size;
        EXPECT_EQ(::getsockopt(sockets().at(0), SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
        return size;
    };
    EXPECT_EQ(bufferSize(net::UdpReceiver(nullptr, m_local, kGroup, 5000, 1024)), 2 * 10 * 1024)
        << "ten times the buffer; the system doubles it";
    const auto forDiscovery = [&] { return net::detail::makeReceiver(nullptr, wire::kDiscovery, m_local); };
    EXPECT_GT(bufferSize(forDiscovery()), 2 * 100 * 1024);
    EXPECT_EQ(errOf([&] {
                  constexpr int kMoreThanAnySystemGrants = 1 << 30;
                  net::UdpReceiverPrivate::growReceiveBuffer(*forDiscovery(), kMoreThanAnySystemGrants);
              }),
              "")
        << "there is room enough all the same";
    const Fault fault("SO_RCVBUF", 0, 2);
    EXPECT_EQ(errOf(forDiscovery),
              "UdpReceiver: the system grants 10240 of 262144 bytes of receive buffer (net.core.rmem_max), "
              "many radars at once may not all be heard\n");
}

TEST_F(Udp, ReceiverHearsNothingOfAnotherInterfaceWhereItCannotBeTiedToItsOwn) {
    const unsigned int loopback = net::transAddr("127.0.0.1");
    net::UdpSocket other(&m_recorder, 64); // joins the group there
    other.SetGroupRecvSockAddr(loopback, kGroup, 5001);
    net::UdpSender sender(kGroup, 5000, loopback, 0);
    sender.setMulticastLoop(true);
    for (const auto& [call, code] : {std::pair("SO_BINDTODEVICE", EPERM), {"getifaddrs", EMFILE}}) {
        const Fault fault(call, code, 1);
        const net::UdpReceiver receiver(&m_recorder, m_local, kGroup, 5000, 64);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(sender.sendData("x", 1), 1);
        EXPECT_FALSE(m_recorder.next(100ms)) << call;
    }
    other.SetGroupRecvSockAddr(m_local, kGroup, 5001);
    net::UdpSender here(kGroup, 5000, m_local, 0);
    here.setMulticastLoop(true);
    const Fault refused("setsockopt", ENOBUFS, 2); // of the options of IP: to join
    const net::UdpReceiver receiver(&m_recorder, m_local, kGroup, 5000, 64);
    EXPECT_EQ(here.sendData("x", 1), 1);
    EXPECT_TRUE(m_recorder.next(10s)) << "what arrives all the same";
}

TEST_F(Udp, ReceiverIsTiedToItsInterfaceInTheEndWhereTheInterfacesCouldNotBeListedFirst) {
    net::detail::Timing timing;
    timing.receiverRepair = 50ms;
    net::detail::setTiming(timing);
    for (const int look : {1, 2}) {
        const Fault fault("getifaddrs", EMFILE, look);
        const net::UdpReceiver receiver(&m_recorder, m_local, kGroup, 5000, 64);
        EXPECT_TRUE(fault.hit());
        EXPECT_TRUE(comesTrue([] { return std::system("ss -Huna | grep -q 236.1.2.3%eth0:5000") == 0; }))
            << look;
    }
}

TEST_F(Udp, DescriptorsAreCloseOnExecAndClosedAtOnceWithTheirOwners) {
    auto fastest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 10; ++i)
        fastest = std::min(fastest, timeOf([&] {
                               EXPECT_EQ(sockets().size(), 0U);
                               const net::UdpReceiver receiver(nullptr, 0, "127.0.0.1", 5000, 64);
                               const net::UdpSender sender(kGroup, 5000, m_local, 0);
                               net::UdpSocket socket(&m_recorder, 64);
                               socket.SetGroupRecvSockAddr(m_local, kGroup, 5000);
                               socket.SetGroupRecvSockAddr(m_local, kGroup, 5001);
                               socket.notifyForQuit();
                               EXPECT_EQ(sockets().size(), 4U) << "one tells of links";
                               for (const int fd : sockets())
                                   EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
                           }));
    EXPECT_LT(fastest, 400ms) << "the time-out of a receive call is longer";
}

TEST_F(Udp, SocketSendsAndReceivesWhenSetUpInThatOrderAndReportsEmptyDatagrams) {
    net::UdpSender peer(kGroup, 5000, m_local, 0);
    peer.setMulticastLoop(true);
    net::UdpSocket socket(&m_recorder, 64);
    socket.SetSendSockAddr(m_local, kGroup, 5000 + 65536);
    socket.SetGroupRecvSockAddr(m_local, kGroup, 5000);
    EXPECT_EQ(socket.SendData("own", 3), 3) << "the port is cut to 16 bits";
    EXPECT_THAT(m_recorder.next(), Optional(FieldsAre("10.1.0.1:5000", "236.1.2.3:5000", "own")));

    Recorder witness;
    const net::UdpReceiver receiver(&witness, m_local, kGroup, 5000, 64);
    const Output output;
    peer.sendData("", 0);
    peer.sendData("next", 4);
    EXPECT_EQ(m_recorder.nextBytes(), "next");
    EXPECT_EQ(witness.nextBytes(), "next");
    EXPECT_THAT(output.err(), HasSubstr("(236.1.2.3,5000)>:\n\tfunction[recvfrom],code[0,Success]"));

    socket.SetSendSockAddr(m_local, kGroup, 5000);
    peer.sendData("unheard", 7);
    EXPECT_EQ(witness.nextBytes(), "unheard");
    EXPECT_FALSE(m_recorder.next(0ms)) << "a new set-up ends what was before";

    const long threads = ProcessResources::now().threads;
    socket.SetGroupRecvSockAddr(m_local, kGroup, 5000);
    net::UdpReceiver told(&m_recorder, m_local, kGroup, 5000, 64);
    socket.notifyForQuit();
    told.notifyForQuit();
    peer.sendData("wake", 4); // before their time-outs
    EXPECT_TRUE(comesTrue([&] { return ProcessResources::now().threads == threads; }));
}

TEST(ShellCommand, PrintsOnlyWhatSucceeded) {
    const auto run = net::tNetIPHelper::SystemCmd;
    EXPECT_EQ(outOf([&] {
                  EXPECT_FALSE(run("exit 3", true));
                  EXPECT_FALSE(run("no-such-command", false));
                  EXPECT_TRUE(run("echo hidden", false));
                  const Fault fault("system", EAGAIN);
                  EXPECT_FALSE(run("true", true));
              }),
              "@echo hidden\r\n");
    EXPECT_EQ(outOf([&] { EXPECT_TRUE(run("echo shown", true)); }), "shown\n@echo shown\r\n");
}

TEST(ShellCommand, IsEndedWithAllThatItHasStartedWhenItsTimeIsOver) {
    net::detail::Pause ending;
    const Fault fault("waitpid", EINTR);
    EXPECT_TRUE(net::detail::runCommandWithin("true", 20s, ending));
    EXPECT_FALSE(net::detail::runCommandWithin("sleep 4712; :", 10ms, ending));
    EXPECT_TRUE(comesTrue([] { return std::system("pgrep --full '^sleep 4712'") != 0; }));
}

TEST_F(Udp, RouteIsAddedWithSudoThenWithoutAndOnlyForAValidAddress) {
    ASSERT_EQ(std::system("ip addr add 10.1.0.7/24 dev eth0 label eth0:1"), 0);
    const Commands bin;
    const std::string log = bin.path() / "calls";
    bin.add("sudo",
            "{ echo sudo \"$@\"; grep -E 'SigBlk|SigIgn' /proc/self/status; readlink /proc/self/fd/0; } >> " +
                log + "; exit 1");
    bin.add("route", "echo route \"$@\" >> " + log);
    std::signal(SIGPIPE, SIG_IGN);
    const std::string unsafe = "10.1.0.1 ; touch " + (bin.path() / "injected").string();
    const net::UdpReceiver unsafeReceiver(&m_recorder, m_local, unsafe.c_str(), 5000, 64);
    std::optional<net::UdpReceiver> receiver;
    receiver.emplace(nullptr, net::transAddr("10.1.0.7"), kGroup, 5000, 64);
    EXPECT_THAT(bin.read("calls"),
                MatchesRegex("sudo route add -net 236.1.2.3 netmask 255.255.255.255 eth0:1\n"
                             "SigBlk:\t0000000000000000\n"
                             "SigIgn:\t............[02468ace]...\n"
                             "/dev/null\n"
                             "route add -net 236.1.2.3 netmask 255.255.255.255 eth0:1\n"))
        << "with no signal blocked, nor SIGPIPE ignored";
    EXPECT_FALSE(std::filesystem::exists(bin.path() / "injected"));
    net::UdpSender("10.1.0.1", 5000, m_local, 0).sendData("received", 8);
    EXPECT_EQ(m_recorder.nextBytes(), "received");

    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    const Fault fault("posix_spawn", EAGAIN, 1, 2);
    receiver.emplace(nullptr, m_local, kGroup, 5000, 64);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child) << "is not taken for a command that did not start";
}

} // namespace
