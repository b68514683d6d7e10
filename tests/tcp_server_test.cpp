#include "tcp_support.h"

#include <sys/resource.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <memory>

namespace {

using namespace tcp_test;
using net::TcpServer;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kLocal = "127.0.0.1";
constexpr int kAny = -1;

/// A server on the loopback address.
struct Serving {
    explicit Serving(int maxClients = kAny) { EXPECT_TRUE(server.connect(kLocal, port, maxClients)); }

    /// A client that the server knows, and its descriptor there.
    std::pair<Peer, int> join(int receiveBuffer = 0) {
        const size_t before = notes.count(Event::Connected);
        Peer peer(port, kLocal, receiveBuffer);
        EXPECT_TRUE(eventually([&] { return notes.count(Event::Connected) == before + 1; }));
        return {std::move(peer), notes.events().back().fd};
    }
    bool left(size_t clients) {
        return eventually([&] { return notes.count(Event::Disconnected) == clients; });
    }

    const unsigned short port = freePort();
    Notes notes;
    TcpServer server{&notes};
};

std::string errorLine(const char* function, int line, const std::string& address, unsigned short port,
                      const char* call, int code) {
    return "SocketError<UdpSocket/tcpsocket.cpp," + std::string(function) + "," + std::to_string(line) +
           ",(" + address + "," + std::to_string(port) + ")>:\n\tfunction[" + call + "],code[" +
           std::to_string(code) + "," + std::strerror(code) + "]\n";
}

size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST(TcpServer, AClientsComingAndGoingIsAnnouncedAndLogged) {
    Output output;
    unsigned short from;
    unsigned short port;
    {
        Serving s;
        port = s.port;
        EXPECT_FALSE(s.server.isConnected()) << "listening is not being connected";
        auto [peer, fd] = s.join();
        EXPECT_TRUE(s.server.isConnected());
        from = peer.port();
        EXPECT_TRUE(peer.send("hello"));
        EXPECT_TRUE(eventually([&] { return s.notes.bytes() == "hello"; }));
        peer.close();
        EXPECT_TRUE(s.left(1));
        EXPECT_EQ(s.server.numOfClients(), 0);
        EXPECT_THAT(s.notes.events(), ElementsAre(Event{Event::Connected, fd, kLocal, from},
                                                  Event{Event::Disconnected, fd, kLocal, from}));
        std::this_thread::sleep_for(200ms); // nothing tells when the clean-up thread has written its line
    }
    const std::string server = "TCP Server(127.0.0.1:" + std::to_string(port) + "): ";
    const std::string client = "client 127.0.0.1:" + std::to_string(from);
    EXPECT_EQ(output.out(), "TCP Server: bind 127.0.0.1 " + std::to_string(port) + "\r\n" + server + client +
                                " connect, clients num 1 recv thread 1 ...\r\n" + server + client +
                                " disconnect ...\r\n" + server + "clients num 0 recv thread 0 ...\r\n");
    EXPECT_EQ(output.err(), "");
}

TEST(TcpServer, ClientsBeyondTheLimitAreClosedSilently) {
    for (const auto& [limit, served] : {std::pair{2, 2U}, std::pair{0, 0U}, std::pair{-1, 5U}}) {
        Serving s(limit);
        std::vector<Peer> peers;
        for (size_t i = 0; i < served; ++i)
            peers.push_back(s.join().first);
        if (limit >= 0) {
            EXPECT_TRUE(Peer(s.port).ends());
        }
        EXPECT_EQ(s.server.numOfClients(), static_cast<int>(served));
        EXPECT_EQ(s.notes.events().size(), served);
    }
}

TEST(TcpServer, APortThatCannotBeHadIsReportedAndTheServerStaysUsable) {
    const Listening taken;
    Notes notes;
    TcpServer server(&notes);
    Output output;
    const size_t before = openDescriptors();
    EXPECT_FALSE(server.connect(kLocal, taken.port(), 1));
    EXPECT_FALSE(server.connect("10.1.2.3", 4000, 1));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(output.err(), errorLine("init", 241, kLocal, taken.port(), "bind", EADDRINUSE) +
                                errorLine("init", 241, "10.1.2.3", 4000, "bind", EADDRNOTAVAIL));
    EXPECT_EQ(output.out(), "");
    const unsigned short port = freePort();
    ASSERT_TRUE(server.connect(port, 1));
    const Peer peer(port);
    EXPECT_TRUE(eventually([&] { return server.isConnected(); }));
}

TEST(TcpServer, BytesReachAllOrOneOrNobodyWithAWord) {
    Serving s;
    auto [first, firstFd] = s.join();
    auto [second, secondFd] = s.join();
    s.server.sendData("all ", 4);
    s.server.sendMultipleDatas({{"p", 1}, {"", 0}, {"arts ", 5}});
    EXPECT_TRUE(s.server.sendData(firstFd, "first", 5));
    EXPECT_TRUE(s.server.sendData(kLocal, second.port(), "second", 6));
    EXPECT_EQ(first.read(15), "all parts first");
    EXPECT_EQ(second.read(16), "all parts second");

    Output output;
    EXPECT_FALSE(s.server.sendData(999, "x", 1));
    EXPECT_FALSE(s.server.sendData(secondFd, "", 0));
    EXPECT_FALSE(s.server.sendData(kLocal, 7, "x", 1));
    EXPECT_FALSE(s.server.sendData("127.0.0.10", first.port(), "x", 1));
    EXPECT_FALSE(s.server.sendData("127", first.port(), "", 0));
    s.server.sendMultipleDatas({});
    const std::string fd = std::to_string(secondFd);
    const std::string port = std::to_string(first.port());
    EXPECT_EQ(output.out(), "socket is not exist\nServer send fd " + fd +
                                " 0Byte!\naddress port 7 is not exist!\naddress port " + port +
                                " is not exist!\nServer send port " + port +
                                " 0Byte!\nServer send 0Byte\nServer send 0Byte\n");
    EXPECT_EQ(output.err(), "");
}

TEST(TcpServer, AnAddressMatchesByItsBeginning) {
    const unsigned short port = freePort();
    Notes notes;
    TcpServer server(&notes);
    ASSERT_TRUE(server.connect(port, kAny));
    const Peer peer(port, "127.0.0.15");
    ASSERT_TRUE(eventually([&] { return server.isConnected(); }));
    EXPECT_TRUE(server.sendData("127.0.0.1", peer.port(), "hello", 5));
    EXPECT_EQ(peer.read(5), "hello");
}

TEST(TcpServer, CloseClientEndsItForThePeerAtOnceAndIsAnnouncedOnce) {
    Serving s;
    std::atomic<int> reused = 0;
    s.notes.onDisconnected = [&](int fd) {
        const Descriptor next(::dup(0));
        reused += next.get() == fd;
    };
    auto [byOther, otherFd] = s.join();
    EXPECT_EQ(s.server.closeClient(otherFd), 0);
    EXPECT_EQ(s.server.numOfClients(), 0);
    EXPECT_TRUE(byOther.ends());
    EXPECT_TRUE(s.left(1));

    s.notes.onData = [&](int fd, const std::string&) { EXPECT_EQ(s.server.closeClient(fd), 0); };
    auto [byData, dataFd] = s.join();
    EXPECT_TRUE(byData.send("close me"));
    EXPECT_TRUE(byData.ends());
    EXPECT_TRUE(s.left(2));

    s.notes.onConnected = [&](int fd) { EXPECT_EQ(s.server.closeClient(fd), 0); };
    EXPECT_TRUE(s.join().first.ends());
    EXPECT_TRUE(s.left(3));
    EXPECT_EQ(reused, 0) << "a number is free only after the callback";

    for (const int stranger : {-1, 0, 999, otherFd}) {
        errno = 0;
        EXPECT_EQ(s.server.closeClient(stranger), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_NE(::fcntl(0, F_GETFD), -1) << "what is no client's stays open";
}

TEST(TcpServer, AClosedClientIsAnnouncedEvenWhenTheServerEndsAtOnce) {
    Serving s;
    const auto [peer, fd] = s.join();
    s.server.closeClient(fd);
    s.server.disconnect();
    EXPECT_EQ(s.notes.count(Event::Disconnected), 1U);
}

TEST(TcpServer, AClientThatDoesNotReadDelaysASendToAllAndLosesOnlyItsOwn) {
    Serving s;
    const auto [deaf, deafFd] = s.join(1);
    const auto [attentive, attentiveFd] = s.join();
    std::string heard;
    std::thread reader([&, &peer = attentive] { heard = peer.read(std::string::npos); });
    const std::string block(1 << 20, 'b');
    Output output;
    for (int i = 0; i < 4; ++i)
        EXPECT_LT(timeOf([&] { s.server.sendData(block.data(), 1 << 20); }), 3s);
    const std::string refused = errorLine("operator()", 296, kLocal, s.port, "send", EAGAIN);
    EXPECT_THAT(output.err(), AllOf(HasSubstr(refused), Not(HasSubstr("operator(),331"))));
    output.out();
    EXPECT_FALSE(s.server.sendData(deafFd, "x", 1));
    s.server.disconnect();
    reader.join();
    EXPECT_EQ(heard.size(), 4U << 20);
}

TEST(TcpServer, ABrokenClientNeitherEndsTheProcessNorDisturbsOthers) {
    std::signal(SIGPIPE, SIG_DFL);
    Serving s;
    std::promise<void> release;
    s.notes.onData = [&, released = release.get_future().share()](int, const std::string&) {
        released.wait();
    };
    auto [broken, brokenFd] = s.join();
    const auto [whole, wholeFd] = s.join();
    EXPECT_TRUE(broken.send("busy")); // its receive thread will not notice
    EXPECT_TRUE(eventually([&] { return s.notes.bytes() == "busy"; }));
    broken.reset();
    Output output;
    s.server.sendData("1", 1);
    s.server.sendMultipleDatas({{"2", 1}});
    EXPECT_FALSE(s.server.sendData(brokenFd, "3", 1));
    EXPECT_EQ(whole.read(2), "12");
    EXPECT_THAT(output.out(), HasSubstr("Server send fd " + std::to_string(brokenFd) + " error!\n"));
    EXPECT_EQ(output.err(), errorLine("operator()", 296, kLocal, s.port, "send", ECONNRESET) +
                                errorLine("operator()", 331, kLocal, s.port, "send", EPIPE));
    release.set_value();
    EXPECT_TRUE(s.left(1));
}

TEST(TcpServer, EndsAtOnceAsOftenAsWantedAndServesAgain) {
    Serving s;
    for (int round = 0; round < 3; ++round) {
        const auto [peer, fd] = s.join();
        if (round == 1)
            s.server.notifyForQuit();
        if (round == 2) {
            EXPECT_LT(timeOf([&] { s.server.disconnect(); }), kQuick);
            s.server.disconnect();
            EXPECT_FALSE(s.server.isConnected());
            EXPECT_TRUE(peer.ends());
        }
        EXPECT_TRUE(s.server.connect(kLocal, s.port, kAny)) << "also while it listens, or was told to quit";
        EXPECT_TRUE(peer.ends());
        EXPECT_EQ(s.server.numOfClients(), 0);
    }
    EXPECT_EQ(s.notes.count(Event::Disconnected), 0U) << "an end of our own making is not announced";
}

TEST(TcpServer, IsGoneAtOnceInTheMiddleOfTraffic) {
    auto s = std::make_unique<Serving>();
    const auto [peer, fd] = s->join();
    std::vector<std::thread> talkers;
    for (int i = 0; i < 10; ++i)
        talkers.emplace_back([talker = std::make_shared<Peer>(s->port)] {
            while (talker->send(std::string(10000, 't')))
                std::this_thread::sleep_for(1ms);
        });
    EXPECT_TRUE(eventually([&] { return s->notes.bytes().size() > 1000000; }));
    const auto time = timeOf([&] { s.reset(); });
    EXPECT_LT(time, kQuick);
    RecordProperty("gone_ms", std::to_string(std::chrono::duration<double, std::milli>(time).count()));
    EXPECT_TRUE(peer.ends());
    for (std::thread& talker : talkers)
        talker.join();
}

TEST(TcpServer, WithoutDescriptorsItReportsAndServesAgainAfterwards) {
    Serving s;
    Peer waiting(net::detail::openSocket(SOCK_STREAM));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    Output output;
    const rlimit none{static_cast<rlim_t>(waiting.fd()) + 1, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    std::vector<Descriptor> fillers; // of gaps below
    for (int fd = ::dup(0); fd != -1; fd = ::dup(0))
        fillers.emplace_back(fd);
    const sockaddr_in address = Peer::loopback(s.port);
    EXPECT_EQ(::connect(waiting.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::this_thread::sleep_for(250ms); // two or three tries
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(eventually([&] { return s.server.isConnected(); }));
    const std::string err = output.err();
    const std::string line = errorLine("operator()", 466, kLocal, s.port, "accept", EMFILE);
    EXPECT_THAT(err, HasSubstr(line));
    EXPECT_LT(err.size(), 10 * line.size()) << "with a pause in between";
    output.out();
}

TEST(TcpServer, ServesAnIndependentClient) {
    Serving s;
    s.notes.onData = [&](int fd, const std::string& bytes) {
        s.server.sendData(fd, bytes.data(), static_cast<unsigned>(bytes.size()));
    };
    const std::string command =
        "test \"$(printf 'radar\\n' | socat -t5 - TCP:127.0.0.1:" + std::to_string(s.port) +
        ",shut-down)\" = radar";
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_TRUE(s.left(1));
}

TEST(TcpServer, ItsOwnKindOfClientComesBackAfterARestart) {
    Serving s;
    Notes clientNotes;
    net::TcpClient client(&clientNotes, kLocal, s.port, 0);
    for (size_t round = 1; round <= 2; ++round) {
        ASSERT_TRUE(client.connectOnce());
        ASSERT_TRUE(eventually([&] { return s.server.isConnected(); }));
        EXPECT_TRUE(client.asyncSendData("up", 2));
        s.server.sendData("down", 4);
        EXPECT_TRUE(eventually([&] { return clientNotes.bytes().size() == 4 * round; }));
        EXPECT_TRUE(eventually([&] { return s.notes.bytes().size() == 2 * round; }));
        EXPECT_TRUE(s.server.connect(kLocal, s.port, kAny));
        EXPECT_TRUE(eventually([&] { return clientNotes.count(Event::Disconnected) == round; }));
    }
    EXPECT_TRUE(eventually([&] { return s.server.isConnected(); })) << "by itself";
}

} // namespace
