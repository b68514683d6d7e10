#include "faults.h"
#include "tcp_support.h"

#include <UdpSocket/base/timing.h>

#include <netinet/tcp.h>
#include <sys/resource.h>

namespace {

using namespace tcp_test;
using net::TcpClient;

/// A client with auto-connect off and its connection to a plain socket.
struct Connected {
    explicit Connected(unsigned int localIp = 0)
        : client(&notes, NetAddress{net::transAddr(kLocal), net::HtoNs(listening.port())}, localIp) {
        client.setAutoConnectEnable(false);
        EXPECT_TRUE(client.connectOnce());
        peer = std::make_unique<Peer>(listening.accept());
    }
    bool lossIsAnnounced() const { return notes.disconnected.reaches(1); }

    Listening listening;
    Notes notes;
    std::unique_ptr<Peer> peer; // outlives the client
    TcpClient client;
};

/// Attempts, and probes of an idle link, after half a second instead of five.
void tickQuickly() {
    net::detail::Timing timing;
    timing.clientTick = 50ms;
    net::detail::setTiming(timing);
}

TEST(TcpClient, AnAttemptIsLoggedAndAnnouncedBeforeTheClientCountsAsConnected) {
    const Listening listening;
    const unsigned short port = listening.port();
    Notes notes;
    TcpClient* inside = nullptr;
    notes.onConnected = [&](int) {
        EXPECT_FALSE(inside->isConnected());
        EXPECT_FALSE(inside->sendData("x", 1));
        EXPECT_TRUE(inside->asyncSendData("queued", 6));
    };
    Peer peer; // outlives the client
    const Output output;
    {
        TcpClient client(&notes, kLocal, port, 0);
        inside = &client;
        EXPECT_STREQ(client.addr(), kLocal);
        EXPECT_EQ(client.port(), port);
        EXPECT_FALSE(client.isConnected());
        EXPECT_FALSE(client.sendData("x", 1));
        EXPECT_TRUE(client.connectOnce());
        EXPECT_TRUE(client.isConnected());
        peer = listening.accept();
        EXPECT_EQ(peer.read(6), "queued");

        TcpClient unlucky(&notes, kLocal, 1, 0);
        EXPECT_FALSE(unlucky.connectOnce());
        EXPECT_FALSE(unlucky.isConnected());
    }
    const std::string server = "(addr = 127.0.0.1,port = " + std::to_string(port) + ")";
    EXPECT_EQ(output.out(), "tcp client try to connect " + server + "\r\ntcp client successfully connected " +
                                server + "\r\ntcp client try to connect (addr = 127.0.0.1,port = 1)\r\n" +
                                "tcp client connected failed ...\r\ntcp client " + server +
                                " receive thread out ....\r\n");
    EXPECT_EQ(output.err(), "");
    EXPECT_THAT(notes.connected.all(), ElementsAre("0 127.0.0.1:" + std::to_string(port)));
    EXPECT_THAT(notes.disconnected.all(), ElementsAre());
}

TEST(TcpClient, BytesTravelBothWaysThroughTheInterfaceOfTheLocalAddress) {
    for (const auto& [localIp, device] : {std::pair{kLocal, "lo"}, {"10.77.77.77", ""}}) {
        Connected c(net::transAddr(localIp));
        c.notes.onData = [expected = device](int fd) {
            char name[16]{};
            socklen_t length = sizeof name;
            EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
            EXPECT_STREQ(name, expected);
            int noDelay = 0;
            length = sizeof noDelay;
            ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
            EXPECT_NE(noDelay, 0);
            int probes = 0; // of a silent peer, until it counts as gone
            length = sizeof probes;
            ::getsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &probes, &length);
            EXPECT_EQ(probes, 3);
        };
        EXPECT_TRUE(c.client.sendData("one", 3));
        EXPECT_TRUE(c.client.sendMultipleDatas({{"t", 1}, {"", 0}, {"wo", 2}}));
        EXPECT_TRUE(c.client.asyncSendData("thr\0ee", 6));
        EXPECT_EQ(c.peer->read(12), std::string("onetwothr\0ee", 12));
        const std::vector<std::pair<const void*, int>> most(IOV_MAX, {"x", 1});
        EXPECT_TRUE(c.client.sendMultipleDatas(most));
        EXPECT_EQ(c.peer->read(most.size()), std::string(most.size(), 'x'));
        EXPECT_TRUE(c.peer->send("back"));
        EXPECT_TRUE(c.notes.receives("back"));
    }
}

TEST(TcpClient, APeerThatEndsItsOwnDirectionIsAnnouncedOnceAndStillGetsWhatWasToBeSent) {
    const Output output;
    Connected c;
    const std::string much(32 << 20, 'a'); // more than the connection holds
    auto sent = std::async(std::launch::async, [&] {
        return c.client.sendData(much.data(), static_cast<unsigned>(much.size()));
    });
    ASSERT_EQ(c.peer->read(1), "a") << "a send is under way";
    c.client.asyncSendData("stood in the queue", 18);
    c.peer->endOwnDirection();
    EXPECT_TRUE(c.lossIsAnnounced());
    EXPECT_FALSE(c.client.isConnected());
    c.client.asyncSendData("late", 4);
    EXPECT_TRUE(c.peer->read(much.size() - 1) == much.substr(1));
    EXPECT_EQ(c.peer->read(18), "stood in the queue");
    EXPECT_TRUE(sent.get());
    EXPECT_FALSE(c.client.sendData("late", 4));
    ASSERT_TRUE(c.client.connectOnce());
    EXPECT_EQ(c.peer->read(1), "") << "until the next connection";
    c.client.asyncSendData("new", 3);
    const Peer next = c.listening.accept(); // whose end would be another loss
    EXPECT_EQ(next.read(3), "new");
    const std::string port = std::to_string(c.client.port());
    EXPECT_THAT(c.notes.disconnected.all(), ElementsAre("0 127.0.0.1:" + port));
    EXPECT_THAT(output.out(), HasSubstr(") receive thread out ...."));
    EXPECT_EQ(output.err(), "SocketError<UdpSocket/tcpsocket.cpp,receiveThread,839,(127.0.0.1," + port +
                                ")>:\n\tfunction[peer closed connection],code[0,Success]\n");
}

TEST(TcpClient, QueuedSendsKeepTheirOrderAndALongQueueIsMentionedPerItem) {
    Connected c;
    const Output output;
    std::string expected(16 << 20, 'a'); // more than the connection holds
    c.client.asyncSendData(expected.data(), static_cast<unsigned>(expected.size()));
    ASSERT_EQ(c.peer->read(1), "a") << "the first item is out of the queue";
    std::string warnings;
    for (int i = 0; i < 150; ++i) {
        const std::string item = std::to_string(i) + ",";
        c.client.asyncSendData(item.data(), static_cast<unsigned>(item.size()));
        expected += item;
        if (i < 49)
            warnings += "Tcp asyncSend list size " + std::to_string(149 - i) + " !!!\r\n";
    }
    EXPECT_TRUE("a" + c.peer->read(expected.size() - 1) == expected);
    EXPECT_EQ(output.out(), warnings);
    EXPECT_EQ(output.err(), "");
}

TEST(TcpClient, AnIdleLinkIsProbedUnlessAutoConnectIsOff) {
    tickQuickly();
    Connected quiet;
    EXPECT_GT(timeOf([] {
                  Connected probing;
                  probing.client.setAutoConnectEnable(true);
                  EXPECT_EQ(probing.peer->read(6), std::string("check") + '\0');
              }),
              400ms);
    quiet.client.sendData("x", 1);
    EXPECT_EQ(quiet.peer->read(1), "x") << "nothing came before";
    quiet.client.setAutoConnectEnable(true);
    const Fault fault("send", EPIPE);
    EXPECT_TRUE(quiet.notes.connected.reaches(2)) << "one that fails is an end";
    EXPECT_EQ(quiet.notes.disconnected.all().size(), 1U);
}

TEST(TcpClient, ReplacingAConnectionAnnouncesItsEndFirstAlsoWhereAListenerIsBusyWithItsData) {
    const Output output;
    Connected c;
    std::atomic<bool> inTime = false;
    c.notes.onData = [&](int) { inTime = c.notes.connected.reaches(2, 5s); };
    EXPECT_TRUE(c.peer->send("old"));
    EXPECT_TRUE(c.notes.receives("old"));
    for (size_t ended = 1; ended <= 5; ++ended) {
        ASSERT_TRUE(c.client.connectOnce());
        EXPECT_TRUE(c.peer->ends());
        *c.peer = c.listening.accept();
        EXPECT_EQ(c.notes.disconnected.all().size(), ended);
        EXPECT_EQ(c.notes.connected.all().size(), ended + 1);
    }
    EXPECT_TRUE(inTime) << "the next connection was not announced until the listener had done";
    EXPECT_TRUE(c.client.sendData("new", 3));
    EXPECT_EQ(c.peer->read(3), "new");
    EXPECT_EQ(output.err(), "") << "an end of our own making is no error";
}

TEST(TcpClient, EveryConnectedHasItsDisconnectedWhoeverConnectsAndSends) {
    const Listening listening;
    std::jthread server([&](const std::stop_token& stop) { // drops every connection at once
        while (!stop.stop_requested())
            if (listening.isCalled())
                listening.accept();
    });
    const Output output;
    Notes notes;
    TcpClient client(&notes, kLocal, listening.port(), 0);
    client.setAutoConnectEnable(false);
    std::atomic<int> losses = 0;
    notes.onDisconnected = [&](int) {
        if (++losses % 8 == 0)
            client.connectOnce(); // a listener may
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 60; ++round) {
                client.connectOnce();
                client.sendData("x", 1);
                client.asyncSendData("y", 1);
            }
        });
    threads.clear();
    EXPECT_TRUE(comesTrue([&] {
        return notes.connected.all().size() == notes.disconnected.all().size() && !client.isConnected();
    }));
    EXPECT_GE(notes.connected.all().size(), 60U);
}

TEST(TcpClient, IsGoneAtOnceWhetherConnectedLostOrBlockedInASend) {
    auto lost = std::make_unique<Connected>();
    lost->peer->close();
    EXPECT_TRUE(lost->lossIsAnnounced());
    auto connected = std::make_unique<Connected>();
    auto blocked = std::make_unique<Connected>();
    const std::string much(16 << 20, 'a');
    blocked->client.asyncSendData(much.data(), static_cast<unsigned>(much.size()));
    blocked->client.asyncSendData("never", 5);
    ASSERT_EQ(blocked->peer->read(1), "a");
    const Output output;
    EXPECT_LT(timeOf([&] { lost.reset(); }), kQuick);
    EXPECT_LT(timeOf([&] { connected.reset(); }), kQuick);
    EXPECT_LT(timeOf([&] { blocked.reset(); }), kQuick);
    EXPECT_EQ(output.err(), "") << "an end of our own making is no error";
}

TEST(TcpClient, ConnectedWaitsUntilDisconnectedOnAnotherThreadHasReturned) {
    Connected c;
    std::promise<void> release;
    c.notes.onDisconnected = [&, released = release.get_future().share()](int) { released.wait(); };
    c.peer->close();
    ASSERT_TRUE(c.lossIsAnnounced()) << "and under way";
    auto connected = std::async(std::launch::async, [&] { return c.client.connectOnce(); });
    EXPECT_EQ(connected.wait_for(200ms), std::future_status::timeout);
    EXPECT_EQ(c.notes.connected.all().size(), 1U);
    release.set_value();
    EXPECT_TRUE(connected.get());
    EXPECT_EQ(c.notes.connected.all().size(), 2U);
}

TEST(TcpClient, ASendThatWaitsIsReportedWhereReceivingFails) {
    const Output output;
    Connected c;
    auto sent = std::async(std::launch::async, [&] {
        const std::string much(16 << 20, 'a');
        return c.client.sendData(much.data(), static_cast<unsigned>(much.size()));
    });
    ASSERT_EQ(c.peer->read(1), "a");
    const Fault fault("recv", ECONNRESET);
    EXPECT_FALSE(sent.get());
    EXPECT_TRUE(c.lossIsAnnounced());
    EXPECT_THAT(output.out(), HasSubstr("tcp client send error -1\r\n"));
    EXPECT_THAT(output.err(), AllOf(HasSubstr("receiveThread,856,"), HasSubstr("sendData,702,")));
}

TEST(TcpClient, ConnectsAgainWithTheDescriptorOfTheConnectionThatWasLost) {
    tickQuickly();
    const Output output;
    Connected c;
    c.peer->close();
    EXPECT_TRUE(c.lossIsAnnounced());
    const rlimit few{64, 64};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    std::vector<Descriptor> others;
    do
        others.emplace_back(::dup(STDERR_FILENO));
    while (others.back().isOpen());
    c.client.setAutoConnectEnable(true);
    EXPECT_TRUE(c.notes.connected.reaches(2));
    EXPECT_THAT(output.err(), Not(HasSubstr("function[socket]")));
}

TEST(TcpClient, ConnectsToNobodyElseThanItsServerAndLeavesItThePort) {
    constexpr const char* kRange = "/proc/sys/net/ipv4/ip_local_port_range";
    std::ofstream(kRange) << "40000 40000"; // so that the system chooses what is asked for
    TcpClient client(nullptr, kLocal, 40000, 0);
    EXPECT_FALSE(client.connectOnce());
    EXPECT_FALSE(client.isConnected());
    net::TcpServer server(nullptr);
    EXPECT_TRUE(server.connect(40000, 1));
}

} // namespace
