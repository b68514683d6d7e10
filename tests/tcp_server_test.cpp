#include "tcp_support.h"

namespace {

using namespace tcp_test;
using net::TcpServer;

constexpr int kAny = -1;

/// A server on the loopback address.
struct Serving {
    explicit Serving(int maxClients = kAny) { EXPECT_TRUE(server.connect(kLocal, port, maxClients)); }

    /// A client that the server knows, and its descriptor there.
    std::pair<Peer, int> join(const char* from = kLocal, int receiveBuffer = 0) {
        const size_t before = notes.connected.all().size();
        Peer peer(port, from, receiveBuffer);
        EXPECT_TRUE(notes.connected.reaches(before + 1));
        return {std::move(peer), std::stoi(notes.connected.all().back())};
    }
    bool left(size_t clients) const { return notes.disconnected.reaches(clients); }

    const unsigned short port = freePort();
    Notes notes;
    TcpServer server{&notes};
};

TEST(TcpServer, AClientsComingAndGoingIsAnnouncedAndLogged) {
    const Output output;
    Serving s;
    EXPECT_FALSE(s.server.isConnected()) << "listening is not being connected";
    auto [peer, fd] = s.join();
    EXPECT_TRUE(s.server.isConnected());
    const unsigned short from = peer.port();
    EXPECT_TRUE(peer.send("hello"));
    EXPECT_TRUE(s.notes.receives("hello"));
    peer.close();
    EXPECT_TRUE(s.left(1));
    EXPECT_EQ(s.server.numOfClients(), 0);
    const std::string note = std::to_string(fd) + " 127.0.0.1:" + std::to_string(from);
    EXPECT_THAT(s.notes.connected.all(), ElementsAre(note));
    EXPECT_THAT(s.notes.disconnected.all(), ElementsAre(note));
    const std::string server = "TCP Server(127.0.0.1:" + std::to_string(s.port) + "): ";
    const std::string client = "client 127.0.0.1:" + std::to_string(from);
    const std::string expected = "TCP Server: bind 127.0.0.1 " + std::to_string(s.port) + "\r\n" + server +
                                 client + " connect, clients num 1 recv thread 1 ...\r\n" + server + client +
                                 " disconnect ...\r\n" + server + "clients num 0 recv thread 0 ...\r\n";
    EXPECT_TRUE(comesTrue([&] { return output.out() == expected; })) << "instead of\n" << expected;
    EXPECT_EQ(output.err(), "");
}

TEST(TcpServer, ClientsBeyondTheLimitAreClosedSilently) {
    for (const auto& [limit, served] : {std::pair{2, 2U}, {0, 0U}, {-1, 5U}}) {
        Serving s(limit);
        std::vector<Peer> peers;
        for (size_t i = 0; i < served; ++i)
            peers.push_back(s.join().first);
        if (limit >= 0) {
            EXPECT_TRUE(Peer(s.port).ends());
        }
        EXPECT_EQ(s.server.numOfClients(), static_cast<int>(served));
        EXPECT_EQ(s.notes.connected.all().size(), served);
    }
}

TEST(TcpServer, BytesReachAllOrOneAndIsPrintedWhereTheyReachNobody) {
    Serving s;
    const auto [first, firstFd] = s.join("127.0.0.15");
    const auto [second, secondFd] = s.join();
    s.server.sendData("all ", 4);
    s.server.sendMultipleDatas({{"p", 1}, {"", 0}, {"arts ", 5}});
    EXPECT_TRUE(s.server.sendData(firstFd, "first", 5));
    EXPECT_TRUE(s.server.sendData("127.0.0.1", first.port(), "!", 1)) << "matches by its beginning";
    EXPECT_TRUE(s.server.sendData(kLocal, second.port(), "second", 6));
    EXPECT_EQ(first.read(16), "all parts first!");
    EXPECT_EQ(second.read(16), "all parts second");

    const Output output;
    EXPECT_FALSE(s.server.sendData(999, "x", 1));
    EXPECT_FALSE(s.server.sendData(secondFd, "", 0));
    EXPECT_FALSE(s.server.sendData(kLocal, 7, "x", 1));
    EXPECT_FALSE(s.server.sendData("127.0.0.10", second.port(), "x", 1));
    EXPECT_FALSE(s.server.sendData("127", second.port(), "", 0));
    s.server.sendMultipleDatas({});
    const std::string port = std::to_string(second.port());
    EXPECT_EQ(output.out(), "socket is not exist\nServer send fd " + std::to_string(secondFd) +
                                " 0Byte!\naddress port 7 is not exist!\naddress port " + port +
                                " is not exist!\nServer send port " + port +
                                " 0Byte!\nServer send 0Byte\nServer send 0Byte\n");
    EXPECT_EQ(output.err(), "");
}

TEST(TcpServer, CloseClientEndsItForThePeerAtOnceAndIsAnnouncedOnce) {
    Serving s;
    std::atomic<int> reused = 0;
    const auto close = [&](int fd) { EXPECT_EQ(s.server.closeClient(fd), 0); };
    s.notes.onDisconnected = [&](int fd) { reused += Descriptor(::dup(0)).get() == fd; };
    s.notes.onData = close;
    const auto [byOther, otherFd] = s.join();
    close(otherFd);
    EXPECT_EQ(s.server.numOfClients(), 0);
    EXPECT_TRUE(byOther.ends());
    EXPECT_TRUE(s.left(1));
    const auto [byData, dataFd] = s.join();
    EXPECT_TRUE(byData.send("close me"));
    EXPECT_TRUE(byData.ends());
    EXPECT_TRUE(s.left(2));
    s.notes.onConnected = close;
    EXPECT_TRUE(s.join().first.ends());
    EXPECT_TRUE(s.left(3));
    EXPECT_EQ(reused, 0) << "a number is free only after the callback";

    for (const int stranger : {-1, 0, 999, otherFd}) {
        errno = 0;
        EXPECT_EQ(s.server.closeClient(stranger), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_NE(::fcntl(0, F_GETFD), -1) << "what is no client's stays open";
    s.notes.onConnected = [](int) {};
    close(s.join().second);
    s.server.disconnect();
    EXPECT_EQ(s.notes.disconnected.all().size(), 4U) << "even when the server ends at once";
}

TEST(TcpServer, ABrokenClientNeitherEndsTheProcessNorDisturbsOthers) {
    std::signal(SIGPIPE, SIG_DFL);
    Serving s;
    std::promise<void> release;
    s.notes.onData = [released = release.get_future().share()](int) { released.wait(); };
    auto [broken, brokenFd] = s.join();
    const auto [whole, wholeFd] = s.join();
    EXPECT_TRUE(broken.send("busy")); // its receive thread will not notice
    EXPECT_TRUE(s.notes.receives("busy"));
    broken.reset();
    const Output output;
    s.server.sendData("1", 1);
    s.server.sendMultipleDatas({{"2", 1}});
    for (int i = 0; i < 5000; ++i)
        EXPECT_FALSE(s.server.sendData(brokenFd, "3", 1));
    EXPECT_EQ(whole.read(2), "12");
    EXPECT_THAT(output.out(), HasSubstr("Server send fd " + std::to_string(brokenFd) + " error!\n"));
    EXPECT_LT(std::ranges::count(output.out(), '!'), 5000) << "as many as a second is given";
    EXPECT_EQ(std::ranges::count(output.err(), '<'), 2) << "transport_failures_test.cpp has their texts";
    release.set_value();
    EXPECT_TRUE(s.left(1));
}

TEST(TcpServer, EndsAtOnceInTheMiddleOfTrafficAndServesAgain) {
    Serving s;
    for (int round = 0; round < 3; ++round) {
        const auto [peer, fd] = s.join();
        const std::jthread talker([&peer = peer] {
            while (peer.send(std::string(10000, 't'))) {
            }
        });
        EXPECT_TRUE(comesTrue([&] { return s.notes.bytes().size() > 1000000; }));
        if (round == 1)
            s.server.notifyForQuit();
        if (round == 2) {
            EXPECT_LT(timeOf([&] { s.server.disconnect(); }), kQuick);
            s.server.disconnect();
            EXPECT_FALSE(s.server.isConnected());
        }
        EXPECT_TRUE(s.server.connect(s.port, kAny)) << "also while it listens, or was told to quit";
        EXPECT_TRUE(peer.ends());
        EXPECT_EQ(s.server.numOfClients(), 0);
    }
    EXPECT_EQ(s.notes.disconnected.all().size(), 0U) << "an end of our own making is not announced";
}

} // namespace
