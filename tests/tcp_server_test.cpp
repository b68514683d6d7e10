#include "tcp_support.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <future>

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

TEST(TcpServer, AClientThatDoesNotReadIsWaitedForOnceAndLosesOnlyItsOwn) {
    Serving s;
    const auto [deaf, deafFd] = s.join(kLocal, 1 << 16);
    const auto [attentive, attentiveFd] = s.join();
    std::atomic<size_t> heard = 0;
    const auto reading = std::async(std::launch::async, [&, &peer = attentive] {
        for (std::string bytes; !(bytes = peer.read(65536, 0)).empty();)
            heard += bytes.size();
    });
    const std::string first(64 << 20, '1'); // several times what the connection holds
    EXPECT_LT(timeOf([&] { s.server.sendData(first.data(), 64 << 20); }), kQuick);
    const Output output;
    const std::string block(1 << 20, 'b');
    constexpr int kBlocks = 40;
    EXPECT_LT(timeOf([&] {
                  for (int i = 0; i < kBlocks; ++i)
                      s.server.sendData(block.data(), 1 << 20);
              }),
              kQuick)
        << "half a second each, if it were waited for";
    EXPECT_THAT(output.err(), HasSubstr("function[send],code[11,Resource temporarily unavailable]\n"));
    EXPECT_EQ(std::ranges::count(output.err(), '<'), kBlocks);
    EXPECT_TRUE(comesTrue([&] { return heard == first.size() + kBlocks * block.size(); }));
    EXPECT_FALSE(s.server.sendData(deafFd, "x", 1));
    EXPECT_FALSE(s.server.sendData(kLocal, deaf.port(), "x", 1));

    EXPECT_LT(timeOf([&, &peer = deaf] { EXPECT_TRUE(peer.read(first.size()) == first); }), kQuick)
        << "the rest of the message that was cut short goes by itself, and not every half second";
    EXPECT_TRUE(comesTrue([&, fd = deafFd] { return s.server.sendData(fd, "next", 4); }));
    EXPECT_EQ(deaf.read(4), "next");
    s.server.disconnect(); // which ends the reading, too
}

TEST(TcpServer, AClientThatEndsItsOwnDirectionStillGetsWhatWasToBeSent) {
    const std::string much(32 << 20, 'a'); // more than the connection holds
    for (const bool readsInTime : {true, false}) {
        Serving s;
        const auto [peer, fd] = s.join(kLocal, 1 << 16);
        auto sent = std::async(std::launch::async, [&, fd = fd] {
            return s.server.sendData(fd, much.data(), static_cast<unsigned>(much.size()));
        });
        ASSERT_EQ(peer.read(1), "a") << "a send is under way";
        peer.endOwnDirection();
        EXPECT_TRUE(s.left(1));
        EXPECT_EQ(s.server.numOfClients(), 0);
        if (!readsInTime) {
            EXPECT_TRUE(sent.get()) << "cut short by its time-out";
            const std::clock_t before = std::clock();
            EXPECT_FALSE(s.notes.disconnected.reaches(2, 200ms));
            EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20) << "of the processor, to wait for the peer";
        }
        EXPECT_TRUE(peer.read(much.size() - 1) == much.substr(1));
        if (readsInTime) {
            EXPECT_TRUE(sent.get());
        }
        EXPECT_EQ(peer.read(1), "") << "and then its end";
        EXPECT_TRUE(comesTrue([fd = fd] { return ::fcntl(fd, F_GETFD) == -1; })) << "its number is free";
        EXPECT_EQ(s.notes.disconnected.all().size(), 1U);
    }
}

TEST(TcpServer, SendsOfSeveralThreadsArriveWholeThoughInterrupted) {
    Serving s;
    const auto [peer, fd] = s.join();
    EXPECT_TRUE(arriveWhole(peer, [&, fd = fd](auto... bytes) { return s.server.sendData(fd, bytes...); }));
    EXPECT_TRUE(arriveWhole(peer, [&](auto... bytes) {
        s.server.sendData(bytes...);
        return true;
    }));
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

TEST(TcpServer, StableClientsLoseNoByteWhileOthersComeAndGo) {
    constexpr size_t kRound = 16384;  // fills the connection of who does not read
    constexpr size_t kChurners = 300; // in all
    const Output output;
    Serving s;
    std::vector<Peer> stable;
    for (int i = 0; i < 20; ++i)
        stable.push_back(s.join().first);
    std::vector<std::jthread> churners;
    for (int i = 0; i < 4; ++i)
        churners.emplace_back([&](const std::stop_token& stop) {
            for (bool resets = false; !stop.stop_requested(); resets = !resets) {
                Peer peer(s.port, kLocal, 1);
                resets ? peer.reset() : peer.close();
            }
        });
    for (char letter = 'A'; !s.notes.disconnected.reaches(kChurners, 0ms) && !HasFailure(); ++letter) {
        const std::string text(kRound, letter);
        s.server.sendData(text.data(), kRound);
        for (const Peer& peer : stable)
            EXPECT_TRUE(peer.read(kRound) == text);
    }
    churners.clear();
    EXPECT_TRUE(comesTrue([&] { return s.server.numOfClients() == 20; })) << "the others have left";
}

} // namespace
