// Every system call of the TCP classes that can fail, each failing once.
#include "fault_fixture.h"
#include "tcp_support.h"

#include <UdpSocket/base/timing.h>

#include <tuple>
#include <utility>

namespace {

using tcp_test::Listening;
using tcp_test::Notes;
using tcp_test::Peer;
using TcpFault = FaultTest;

TEST_F(TcpFault, FailedCallsOfAServerAreReportedAndLeakNothing) {
    const std::string before = "0.0.0.0,0"; // no address is stored yet
    const auto code = [](const char* call, const char* site, int number, const std::string& configured) {
        return tcp(site, configured, call, number);
    };
    const unsigned short port = tcp_test::freePort();
    const std::string bound = "127.0.0.1," + std::to_string(port);
    const FaultCase starting[] = {
        {"socket", EMFILE, code("socket", "init,226", EMFILE, before)},
        {"SO_REUSEADDR", EPERM, code("setsockopt::SO_REUSERADDR", "init,233", EPERM, before)},
        {"bind", EADDRINUSE, code("bind", "init,241", EADDRINUSE, bound)},
        {"listen", EADDRINUSE, code("listen", "init,246", EADDRINUSE, bound)},
        {"pthread_create", EAGAIN, code("thread", "init,246", EAGAIN, bound), 1},
        {"pthread_create", EAGAIN, code("thread", "init,246", EAGAIN, bound), 2},
    };
    for (const FaultCase& faultCase : starting)
        checkFault(faultCase, [&] {
            auto server = std::make_unique<net::TcpServer>(nullptr);
            EXPECT_FALSE(server->connect("127.0.0.1", port, 5));
            return server;
        });

    const FaultCase serving[] = {
        {"poll", ENOMEM, code("select::rfds", "operator(),452", ENOMEM, bound)},
        {"accept4", EAGAIN, ""},
        {"SO_RCVTIMEO", EDOM, code("setsockopt::SO_RCVTIMEO", "operator(),503", EDOM, bound),
         2}, // the first call is the peer's
        {"SO_SNDTIMEO", EDOM, code("setsockopt::SO_SNDTIMEO", "operator(),506", EDOM, bound)},
        {"pthread_create", EAGAIN, code("thread", "operator(),466", EAGAIN, bound), 3, "disconnect ..."},
        {"recv", ECONNRESET, "", 1, "disconnect ..."},
    };
    const auto serve = [&] {
        auto server = std::make_unique<net::TcpServer>(nullptr);
        EXPECT_TRUE(server->connect("127.0.0.1", port, 5));
        return std::pair(std::move(server), std::make_unique<Peer>(port));
    };
    for (const FaultCase& faultCase : serving)
        checkFault(faultCase, serve);

    const std::string refused = code("accept", "operator(),466", EMFILE, bound);
    EXPECT_GE(timeOf([&] {
                  checkFault({"accept4", EMFILE, refused + refused, 1, "connect, clients num 1", 2}, serve);
              }),
              std::chrono::milliseconds(200))
        << "with a pause after each";

    const FaultCase sending[] = {
        {"send", ENOBUFS, code("send", "operator(),296", ENOBUFS, bound), 1},
        {"sendmsg", ENOBUFS, code("send", "operator(),331", ENOBUFS, bound), 1},
        {"send", EPIPE, "", 2, "error!\n"},
        {"send", EPIPE, "", 3, " error!\n"},
    };
    for (const FaultCase& faultCase : sending)
        checkFault(faultCase, [&] {
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

    // What a client does not take at once is sent by another thread, or without one by the caller's.
    checkFault({"pthread_create", EAGAIN, "", 4}, [&] {
        auto notes = std::make_unique<Notes>();
        auto server = std::make_unique<net::TcpServer>(notes.get());
        EXPECT_TRUE(server->connect("127.0.0.1", port, 5));
        auto peer = std::make_unique<Peer>(port);
        peer->send("x");
        EXPECT_TRUE(notes->receives("x"));
        const std::string large(std::size_t{1} << 24, 'x');
        server->sendData(large.data(), static_cast<unsigned int>(large.size()));
        return std::tuple(std::move(notes), std::move(server), std::move(peer));
    });
}

TEST_F(TcpFault, FailedCallsOfAClientAreReportedAndLeakNothing) {
    const auto listening = std::make_unique<Listening>();
    const std::string configured = "127.0.0.1," + std::to_string(listening->port());
    const unsigned int loopback = net::transAddr("127.0.0.1");
    const auto client = [&] {
        return std::make_unique<net::TcpClient>(nullptr, "127.0.0.1", listening->port(), loopback);
    };

    // Two threads may make the first socket, so an attempt after the failed one must succeed.
    const FaultCase making[] = {
        {"socket", EMFILE, tcp("reset,783", configured, "socket", EMFILE)},
        {"SO_BINDTODEVICE", EPERM, tcp("reset,810", configured, "setsockopt::SO_BINDTODEVICE", EPERM)},
        {"SO_RCVTIMEO", EDOM, tcp("reset,822", configured, "setsockopt::SO_RCVTIMEO", EDOM)},
        {"connect", ECONNREFUSED, "", 1, "tcp client connected failed ..."},
        {"fcntl", EPERM, "", 1, "tcp client connected failed ..."},
    };
    for (const FaultCase& faultCase : making)
        checkFault(faultCase, [&] {
            auto made = client();
            made->connectOnce();
            EXPECT_TRUE(made->connectOnce());
            return made;
        });

    checkFault({"poll", ENOMEM, "", 1, "tcp client connected failed ..."}, [] {
        auto silent = std::make_unique<net::TcpClient>(nullptr, "10.1.0.99", 5000, 0);
        EXPECT_FALSE(silent->connectOnce());
        return silent;
    });

    // The keep-alive of an idle connection.
    net::detail::Timing quick;
    quick.clientTick = std::chrono::milliseconds(20);
    net::detail::setTiming(quick);
    checkFault({"send", EPIPE, "", 1, "tcp client check error -1 32 32\r\n"}, [&] {
        auto notes = std::make_unique<Notes>();
        auto made = std::make_unique<net::TcpClient>(notes.get(), "127.0.0.1", listening->port(), loopback);
        EXPECT_TRUE(made->connectOnce());
        EXPECT_TRUE(notes->disconnected.reaches(1));
        return std::pair(std::move(notes), std::move(made));
    });
    net::detail::setTiming({});

    const FaultCase connected[] = {
        {"pthread_create", EAGAIN, tcp("receiveThread,856", configured, "thread", EAGAIN), 3},
        {"recv", ENOMEM, tcp("receiveThread,856", configured, "recv error", ENOMEM), 1,
         "receive thread out ...."},
        {"recv", EAGAIN, ""},
        {"recv", EINTR, ""}, // a debugger
        {"send", ENOBUFS, tcp("sendData,702", configured, "send", ENOBUFS), 1,
         "tcp client send error -1\r\n"},
        {"send", 0, tcp("sendData,702", configured, "send", 0), 1, "tcp client send error 0\r\n"},
        {"sendmsg", ENOBUFS, tcp("sendMultipleDatas,724", configured, "send", ENOBUFS), 1,
         "tcp client writev error -1\r\n"},
    };
    for (const FaultCase& faultCase : connected)
        checkFault(faultCase, [&] {
            auto made = client();
            made->connectOnce();
            made->sendMultipleDatas({{"a", 1}, {"b", 1}});
            made->asyncSendData("queued", 6);
            return made;
        });
}

} // namespace
