#include "tcp_support.h"

#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <memory>

namespace {

using namespace tcp_test;
using net::TcpClient;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kLocal = "127.0.0.1";

std::string errorLine(const char* function, int line, unsigned short port, const char* call, int code) {
    return "SocketError<UdpSocket/tcpsocket.cpp," + std::string(function) + "," + std::to_string(line) +
           ",(127.0.0.1," + std::to_string(port) + ")>:\n\tfunction[" + call + "],code[" +
           std::to_string(code) + "," + std::strerror(code) + "]\n";
}

/// A client with auto-connect off and its connection to a plain socket.
struct Connected {
    Listening listening;
    Notes notes;
    Peer peer{Descriptor()}; // outlives the client
    TcpClient client{&notes, kLocal, listening.port(), 0};

    Connected() {
        client.setAutoConnectEnable(false);
        EXPECT_TRUE(client.connectOnce());
        peer = listening.accept();
    }
    bool lossIsAnnounced() {
        return eventually([this] { return notes.count(Event::Disconnected) == 1; });
    }
};

/// An address that takes packets and never answers.
const char* silentAddress() {
    EXPECT_EQ(std::system("ip link add d0 type veth peer name d1 && ip addr add 10.9.0.1/24 dev d0 && "
                          "ip link set d0 up && ip link set d1 up && "
                          "ip neigh add 10.9.0.2 lladdr 02:00:00:00:00:02 dev d0"),
              0);
    return "10.9.0.2";
}

TEST(TcpClient, AnAttemptIsLoggedAndAnnouncedBeforeTheClientCountsAsConnected) {
    const Listening listening;
    const std::string end =
        "connected (addr = 127.0.0.1,port = " + std::to_string(listening.port()) + ")\r\n";
    const std::string refused = "tcp client try to connect (addr = 127.0.0.1,port = 1)\r\n"
                                "tcp client connected failed ...\r\n";
    Notes notes;
    TcpClient* inside = nullptr;
    bool usableInside = true;
    notes.onConnected = [&](int) { usableInside = inside->isConnected() || inside->sendData("x", 1); };
    Output output;
    {
        TcpClient client(&notes, NetAddress{net::transAddr(kLocal), net::HtoNs(listening.port())}, 0);
        inside = &client;
        EXPECT_STREQ(client.addr(), kLocal);
        EXPECT_EQ(client.port(), listening.port());
        EXPECT_FALSE(client.isConnected());
        EXPECT_FALSE(client.sendData("x", 1));
        EXPECT_TRUE(client.connectOnce());
        EXPECT_TRUE(client.isConnected());

        TcpClient unlucky(&notes, kLocal, 1, 0);
        EXPECT_FALSE(unlucky.connectOnce());
        EXPECT_FALSE(unlucky.isConnected());
    }
    const std::string port = std::to_string(listening.port());
    EXPECT_EQ(output.out(), "tcp client try to connect (addr = 127.0.0.1,port = " + port +
                                ")\r\n"
                                "tcp client successfully " +
                                end + refused + "tcp client (addr = 127.0.0.1,port = " + port +
                                ") receive thread out ....\r\n");
    EXPECT_EQ(output.err(), "");
    EXPECT_FALSE(usableInside);
    EXPECT_THAT(notes.events(), ElementsAre(Event{Event::Connected, 0, kLocal, listening.port()}));
}

TEST(TcpClient, BytesTravelBothWaysByEveryKindOfSend) {
    Connected c;
    std::atomic<int> fd = 0;
    c.notes.onData = [&](int number, const std::string&) { fd = number; };
    EXPECT_TRUE(c.client.sendData("one", 3));
    EXPECT_TRUE(c.client.sendMultipleDatas({{"t", 1}, {"", 0}, {"wo", 2}}));
    EXPECT_EQ(c.peer.read(6), "onetwo");
    EXPECT_TRUE(c.client.asyncSendData("thr\0ee", 6));
    EXPECT_EQ(c.peer.read(6), std::string("thr\0ee", 6));
    EXPECT_TRUE(c.peer.send("back"));
    EXPECT_TRUE(eventually([&] { return c.notes.bytes() == "back"; }));
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    EXPECT_EQ(::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length), 0)
        << "fd is the socket's number";
    EXPECT_NE(noDelay, 0);
}

TEST(TcpClient, ALocalAddressBindsToItsInterfaceAndAForeignOneToNone) {
    for (const auto& [localIp, device] : {std::pair{kLocal, "lo"}, std::pair{"10.77.77.77", ""}}) {
        const Listening listening;
        Notes notes;
        char name[64] = "?";
        notes.onData = [&](int fd, const std::string&) {
            socklen_t length = sizeof name;
            EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
            name[length] = '\0';
        };
        TcpClient client(&notes, kLocal, listening.port(), net::transAddr(localIp));
        ASSERT_TRUE(client.connectOnce());
        listening.accept().send("x");
        EXPECT_TRUE(eventually([&] { return notes.count(Event::Disconnected) == 1; }));
        EXPECT_STREQ(name, device);
    }
}

TEST(TcpClient, ALossIsReportedByItsCauseAndAnnouncedOnce) {
    for (const bool orderly : {true, false}) {
        Output output;
        unsigned short port;
        {
            Connected c;
            port = c.client.port();
            orderly ? c.peer.close() : c.peer.reset();
            EXPECT_TRUE(c.lossIsAnnounced());
            EXPECT_FALSE(c.client.isConnected());
            EXPECT_FALSE(c.client.sendData("x", 1));
            EXPECT_THAT(c.notes.events(), ElementsAre(Event{Event::Connected, 0, kLocal, port},
                                                      Event{Event::Disconnected, 0, kLocal, port}));
        }
        EXPECT_THAT(output.out(), HasSubstr(") receive thread out ....\r\n"));
        EXPECT_EQ(output.err(), orderly ? errorLine("receiveThread", 839, port, "peer closed connection", 0)
                                        : errorLine("receiveThread", 856, port, "recv error", ECONNRESET));
    }
}

TEST(TcpClient, ASendOfNothingCountsAsLoss) {
    Output output;
    Connected direct;
    EXPECT_FALSE(direct.client.sendData("", 0));
    EXPECT_FALSE(direct.client.isConnected());
    Connected vectored;
    EXPECT_FALSE(vectored.client.sendMultipleDatas({}));
    EXPECT_TRUE(direct.lossIsAnnounced());
    EXPECT_TRUE(vectored.lossIsAnnounced());
    const std::string out = output.out();
    EXPECT_THAT(out, HasSubstr("tcp client send error 0\r\n"));
    EXPECT_THAT(out, HasSubstr("tcp client writev error 0\r\n"));
    EXPECT_EQ(output.err(), errorLine("sendData", 702, direct.client.port(), "send", 0) +
                                errorLine("sendMultipleDatas", 724, vectored.client.port(), "send", 0));
}

TEST(TcpClient, QueuedSendsKeepTheirOrderAndALongQueueIsMentionedPerItem) {
    Connected c;
    Output output;
    std::string expected(16 << 20, 'a'); // more than the connection holds
    c.client.asyncSendData(expected.data(), static_cast<unsigned>(expected.size()));
    ASSERT_TRUE(c.peer.hasData()) << "the first item is out of the queue";
    for (int i = 0; i < 150; ++i) {
        const std::string item = std::to_string(i) + ",";
        c.client.asyncSendData(item.data(), static_cast<unsigned>(item.size()));
        expected += item;
    }
    EXPECT_TRUE(c.peer.read(expected.size()) == expected);
    std::string warnings;
    for (int left = 149; left > 100; --left)
        warnings += "Tcp asyncSend list size " + std::to_string(left) + " !!!\r\n";
    EXPECT_EQ(output.out(), warnings);
    EXPECT_EQ(output.err(), "");
}

TEST(TcpClient, QueuedBytesAreDroppedSilentlyWhileUnconnected) {
    const Listening listening;
    Output output;
    TcpClient client(nullptr, kLocal, listening.port(), 0);
    EXPECT_TRUE(client.asyncSendData("early", 5));
    std::this_thread::sleep_for(100ms); // nothing tells when an item is dropped
    EXPECT_EQ(output.out() + output.err(), "");
    ASSERT_TRUE(client.connectOnce());
    const Peer peer = listening.accept();
    client.asyncSendData("late", 4);
    EXPECT_EQ(peer.read(4), "late");
}

TEST(TcpClient, AnIdleLinkIsProbedUnlessAutoConnectIsOff) {
    Connected quiet;
    const Listening listening;
    TcpClient client(nullptr, kLocal, listening.port(), 0);
    ASSERT_TRUE(client.connectOnce());
    const Peer peer = listening.accept();
    EXPECT_GT(timeOf([&] { EXPECT_EQ(peer.read(6), std::string("check") + '\0'); }), 4s);
    EXPECT_FALSE(quiet.peer.hasData(1s));
}

TEST(TcpClient, ConnectsByItselfAndAgainAfterTheServerRestarts) {
    const unsigned short port = freePort();
    Notes notes;
    TcpClient client(&notes, kLocal, port, 0);
    const std::string echo =
        "socat TCP-LISTEN:" + std::to_string(port) + ",bind=127.0.0.1,reuseaddr EXEC:cat";
    for (size_t round = 1; round <= 2; ++round) {
        {
            const Program server(echo);
            ASSERT_TRUE(eventually([&] { return client.isConnected(); }));
            EXPECT_TRUE(client.sendData("echo ", 5));
            EXPECT_TRUE(eventually([&] { return notes.bytes().size() == 5 * round; }));
        }
        EXPECT_TRUE(eventually([&] { return notes.count(Event::Disconnected) == round; }));
        EXPECT_EQ(notes.count(Event::Connected), round);
    }
}

TEST(TcpClient, ReplacingAConnectionAnnouncesItsEndFirst) {
    Output output;
    {
        Connected c;
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(c.client.connectOnce());
            EXPECT_TRUE(c.peer.ends());
            c.peer = c.listening.accept();
        }
        EXPECT_TRUE(c.client.sendData("new", 3));
        EXPECT_EQ(c.peer.read(3), "new");
        EXPECT_EQ(c.notes.count(Event::Connected), 6U);
        EXPECT_EQ(c.notes.count(Event::Disconnected), 5U);
    }
    EXPECT_EQ(output.err(), "") << "an end of our own making is no error";
    output.out();
}

TEST(TcpClient, EveryConnectedHasItsDisconnectedWhoeverConnectsAndSends) {
    const Listening listening;
    std::atomic<bool> ending = false;
    std::thread server([&] { // drops every connection at once
        while (!ending)
            listening.accept();
    });
    Notes notes;
    TcpClient client(&notes, kLocal, listening.port(), 0);
    notes.onDisconnected = [&, calls = std::make_shared<std::atomic<int>>(0)](int) {
        if (++*calls % 8 == 0)
            client.connectOnce(); // a listener may
    };
    Output output;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 60; ++round) {
                client.connectOnce();
                client.sendData("x", 1);
                client.asyncSendData("y", 1);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(eventually([&] {
        return notes.count(Event::Connected) == notes.count(Event::Disconnected) && !client.isConnected();
    }));
    client.setAutoConnectEnable(false);
    ending = true;
    const Peer last(listening.port());
    server.join();
    output.out();
    output.err();
    EXPECT_GE(notes.count(Event::Connected), 60U);
}

TEST(TcpClient, ToldToQuitItEndsWithinItsTimeOutAndCanConnectOnceMore) {
    Connected c;
    c.client.notifyForQuit();
    EXPECT_TRUE(eventually([&] { return !c.client.isConnected(); }));
    ASSERT_TRUE(c.client.connectOnce());
    const Peer peer = c.listening.accept();
    EXPECT_TRUE(peer.send("again"));
    EXPECT_TRUE(eventually([&] { return c.notes.bytes() == "again"; }));
}

TEST(TcpClient, IsGoneAtOnceWhetherIdleConnectedOrLost) {
    auto idle = std::make_unique<TcpClient>(nullptr, kLocal, freePort(), 0);
    auto connected = std::make_unique<Connected>();
    auto lost = std::make_unique<Connected>();
    lost->peer.close();
    EXPECT_TRUE(lost->lossIsAnnounced());
    const auto idleTime = timeOf([&] { idle.reset(); });
    const auto connectedTime = timeOf([&] { connected.reset(); });
    const auto lostTime = timeOf([&] { lost.reset(); });
    for (const auto& [name, time] : {std::pair{"idle_ms", idleTime}, std::pair{"connected_ms", connectedTime},
                                     std::pair{"lost_ms", lostTime}}) {
        EXPECT_LT(time, kQuick) << name;
        testing::Test::RecordProperty(
            name, std::to_string(std::chrono::duration<double, std::milli>(time).count()));
    }
}

TEST(TcpClient, IsGoneAtOnceDuringAConnectionAttemptToASilentAddress) {
    auto client = std::make_unique<TcpClient>(nullptr, silentAddress(), 4000, 0);
    std::thread caller([&raw = *client] { EXPECT_FALSE(raw.connectOnce()); });
    // The auto-connect thread's own attempt comes after 5 s, and then waits for the caller's.
    EXPECT_FALSE(eventually([&] { return client->isConnected(); }, 6s));
    EXPECT_LT(timeOf([&] { client.reset(); }), kQuick);
    caller.join();
}

TEST(TcpClient, IsGoneAtOnceDuringAnAutomaticAttemptToASilentAddress) {
    Output output;
    auto client = std::make_unique<TcpClient>(nullptr, silentAddress(), 4000, 0);
    EXPECT_FALSE(eventually([&] { return client->isConnected(); }, 6s));
    EXPECT_LT(timeOf([&] { client.reset(); }), kQuick);
    EXPECT_THAT(output.out(), HasSubstr("try to connect (addr = 10.9.0.2,port = 4000)\r\n"));
    output.err();
}

TEST(TcpClient, IsGoneAtOnceBehindAQueuedSendToAPeerThatDoesNotRead) {
    auto c = std::make_unique<Connected>();
    const std::string much(16 << 20, 'a');
    c->client.asyncSendData(much.data(), static_cast<unsigned>(much.size()));
    c->client.asyncSendData("never", 5);
    ASSERT_TRUE(c->peer.hasData());
    Output output;
    EXPECT_LT(timeOf([&] { c.reset(); }), kQuick);
    EXPECT_EQ(output.err(), "") << "an end of our own making is no error";
    output.out();
}

} // namespace
