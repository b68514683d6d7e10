// The library in the process it lives in: one that forks, takes signals, stops its output, stands in
// debuggers.

#include "commands.h"
#include "everything.h"
#include "left_threads.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "stopped_stream.h"

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/escape.h>
#include <UdpSocket/base/line_limit.h>
#include <UdpSocket/base/link_history.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/discovery/multi_radar_client.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>

#include <IniProfile/iniprofile.h>

#include <sys/syscall.h>

namespace {

/// The ids of all threads but the calling one.
std::vector<pid_t> otherThreads() {
    std::vector<pid_t> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
        if (const pid_t id = std::stoi(entry.path().filename()); id != ::gettid())
            threads.push_back(id);
    return threads;
}

class Program : public OneInterface {
protected:
    static constexpr unsigned short kPort = 5002; // of a TCP server
    const unsigned int m_local = net::transAddr("10.1.0.1");
    Recorder m_recorder;
    net::UdpSender m_sender{kGroup, 5000, m_local, 0};

    Program() { m_sender.setMulticastLoop(true); }
};

TEST_F(Program, ForkedChildThatExitsEndsAtOnceAndItsParentNoticesNothingNorAnySignal) {
    static std::atomic<int> interruptions = 0;
    struct sigaction count {};
    count.sa_handler = [](int) { ++interruptions; }; // a receive with a time-out fails with EINTR
    ASSERT_EQ(::sigaction(SIGPROF, &count, nullptr), 0);
    const ProfileDirectory profile("[Local]\nIP = 10.1.0.1\n");
    auto everything = std::make_unique<Everything>(&m_recorder, m_local, kPort);
    ASSERT_TRUE(comesTrue([&] { return everything->server.isConnected() && everything->tcp.isConnected(); }));
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        everything.reset();
        std::exit(7); // with the static objects' destructors
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;

    const Output output;
    const std::clock_t before = std::clock(); // the processor's time
    std::this_thread::sleep_for(500ms);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 4) << "no thread spins";
    while (interruptions < 1000) {
        for (const pid_t thread : otherThreads())
            ::syscall(SYS_tgkill, ::getpid(), thread, SIGPROF);
        std::this_thread::sleep_for(2ms); // between the signals
    }
    EXPECT_EQ(output.err(), "");
    m_sender.sendData("x", 1);
    EXPECT_EQ(m_recorder.nextBytes(), "x");
    EXPECT_TRUE(everything->tcp.isConnected() && everything->tcp.sendData("y", 1));
    EXPECT_EQ(everything->server.numOfClients(), 1);
}

// AddressSanitizer's allocator keeps the locks that threads of the parent held.
#ifndef SANITIZED
TEST_F(Program, ForkedChildFindsEveryLockFreeWhoeverHeldIt) {
    const std::pair<const char*, std::function<void()>> uses[] = {
        {"interfaces", [this] { net::localIfaName(m_local); }},
        {"links", [] { net::detail::LinkHistory::ofThisNetwork(); }},
        {"times", [] { net::detail::timing(); }},
        {"lines",
         [] {
             static net::detail::LineLimit s_none(0);
             s_none.print(stdout, "x");
         }},
        {"profiles", [] { GetProfileInfo("Local", "IP", "", 16, "/dev/null"); }},
    };
    for (const auto& [name, use] : uses) {
        const std::jthread user([&use = use](const std::stop_token& end) {
            while (!end.stop_requested())
                use();
        });
        for (int i = 0, status = 0; i < 50 && status == 0; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(10);
                use();
                ::_exit(0);
            }
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0) << name;
        }
    }
}
#endif

TEST_F(Program, ExitInACallbackEndsTheProgramWithItsStatus) {
    struct Exits final : net::iUdpDataListener,
                         net::iUdpCheckerListener,
                         net::iTcpDataListener,
                         net::iNetIPListener,
                         iMultiRadarCheckerListener {
        void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override { end(); }
        void OnUdpCheckerIpFound(unsigned int) override { end(); }
        void OnTcpDataReceived(int, const char*, unsigned short, const char*, int) override { end(); }
        void OnTcpClientConnected(int, const char*, unsigned short) override {
            if (exitsWhenConnected)
                end();
        }
        void OnTcpClientDisconnected(int, const char*, unsigned short) override {}
        void OnNetIPChanged(const std::string&, const std::string&, bool) override {
            if (isGone || ::gettid() != ::getpid()) // not while it is added
                end();
        }
        void OnLocalIpChanged(unsigned int) override { end(); }
        void end() const {
            if (isGone)
                ::_exit(9);
            std::exit(7);
        }
        bool exitsWhenConnected = true;
        MultiRadarClient* client = nullptr;
        std::atomic<bool> isGone = false;
        ~Exits() {
            std::this_thread::sleep_for(50ms); // a callback in progress is not waited for
            isGone = true;
            net::tNetIPHelper::NetworkRestart();
            if (client != nullptr)
                client->removeListener(this);
            std::this_thread::sleep_for(50ms);
        }
    };
    static Exits s_exits;
    const auto connect = [](net::iTcpDataListener* ofServer, net::iTcpDataListener* ofClient) {
        static net::TcpServer s_server(ofServer);
        s_server.connect("127.0.0.1", kPort, 2);
        static net::TcpClient s_client(ofClient, "127.0.0.1", kPort, 0);
        s_client.connectOnce();
    };
    const std::function<void()> programs[] = {
        [this] { static const net::UdpReceiver s_receiver(&s_exits, m_local, kGroup, 5000, 64); },
        [] {
            static net::UdpChecker s_checker(kGroup, 5000, "x");
            s_checker.addListener(&s_exits);
        },
        [] {
            static HostNegotiator s_negotiator([] { s_exits.end(); }, [](std::uint8_t) { s_exits.end(); });
            s_negotiator.asyncLogin(20);
        },
        [&] { connect(&s_exits, nullptr); },
        [&] { connect(nullptr, &s_exits); },
        [&] { // one client's bytes end it, and another goes on sending
            s_exits.exitsWhenConnected = false;
            connect(&s_exits, nullptr);
            auto* const other = new net::TcpClient(nullptr, "127.0.0.1", kPort, 0);
            other->connectOnce();
            for (;;)
                other->sendData("x", 1);
        },
        [] {
            static net::tNetIPHelper s_watch(false, "eth9", "10.5.0.9", "255.255.255.0");
            s_watch.AddNetIPListener(&s_exits);
        },
        [this] {
            s_exits.client = MultiRadarClient::getInstance();
            s_exits.client->addListener(&s_exits);
            s_exits.client->setLocalIP(m_local);
        },
    };
    const ProfileDirectory profile;
    net::detail::Timing timing;
    timing.checkerPause = timing.watchPass = timing.objection = 40ms;
    net::detail::setTiming(timing);
    const auto run = [this](const std::function<void()>& begin) {
        ::alarm(60);
        net::UdpSender reset(wire::kNegotiation.address, wire::kNegotiation.port, m_local, 0);
        reset.setMulticastLoop(true);
        begin();
        for (;; std::this_thread::sleep_for(10ms)) {
            m_sender.sendData("x", 1);
            reset.sendData(wire::kReset.data(), static_cast<int>(wire::kReset.size()));
        }
    };
    for (const auto& begin : programs)
        EXPECT_EXIT(run(begin), testing::ExitedWithCode(7), "") << &begin - programs;
}

TEST(Threads, LeaveTheApplicationItsSignalsButNotThoseOfFaultsAndProfilers) {
    sigset_t blocked{};
    char name[16]{};
    net::detail::startThread("radar-recv", [&] {
        ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        ::pthread_getname_np(::pthread_self(), name, sizeof name);
    }).join();
    for (const int open : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGPROF})
        EXPECT_FALSE(sigismember(&blocked, open)) << open;
    for (const int shut : {SIGINT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGHUP})
        EXPECT_TRUE(sigismember(&blocked, shut)) << shut;
    EXPECT_STREQ(name, "radar-recv");
}

TEST_F(Program, StoppedOutputHoldsUpOnlyWhoPrints) {
    static std::atomic<std::int64_t> time = 1000;
    net::detail::setClock([] { return time.load(); });
    const ProfileDirectory profile;
    MultiRadarClientPrivate client;
    const auto hear = [&](const char* name) {
        const std::string bytes = protocol::composeAnnouncement(name, 20, 1);
        client.OnUdpGroupDataReceived("10.1.0.2", 6878, "", 0, bytes.data(), static_cast<int>(bytes.size()));
    };
    hear("leaves");
    time += 8;
    hear("stays");

    const StoppedStream output(stdout);
    std::thread prints([&] { client.query(); });
    const auto looksUp = std::async(std::launch::async, [&] {
        EXPECT_TRUE(comesTrue([&] { return client.getRadar().size() == 1; })) << "and then it prints";
        for (int i = 0; i < 100; ++i) {
            client.getAddress("stays", 0);
            hear("stays");
        }
    });
    EXPECT_EQ(looksUp.wait_for(10s), std::future_status::ready);

    output.fail();
    prints.join();
}

TEST(Lines, WhatOthersWroteCannotMoveTheCursorOrForgeALine) {
    const std::pair<std::string, const char*> cases[] = {
        {"North mast", "North mast"},
        {"a\r\nb\x1b[2J\x7f", "a\\x0D\\x0Ab\\x1B[2J\\x7F"},
        {"\xC2\x9B"
         "2J",
         "\\xC2\\x9B"
         "2J"}, // U+009B
        {"\xC2\x80\xC3\xA9\xC2\xA0\xFF\xC2", "\\xC2\\x80\xC3\xA9\xC2\xA0\xFF\xC2"},
    };
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(net::detail::escaped(text), shown);
}

TEST(Lines, AThousandASecondOfAKindAppearAndTheOthersAreCounted) {
    net::detail::LineLimit limit;
    const auto print = [&](int lines) {
        return outOf([&] {
            for (int i = 0; i < lines; ++i)
                limit.print(stdout, "line\n");
        });
    };
    EXPECT_EQ(print(5000).size(), 1000 * std::string("line\n").size());
    std::string next; // which is left out, too, until the second is over
    EXPECT_TRUE(comesTrue([&] { return !(next = print(1)).empty(); }));
    EXPECT_THAT(next, testing::MatchesRegex(
                          "\\([4-9][0-9][0-9][0-9] lines like the next one were left out\\)\nline\n"));
    EXPECT_EQ(print(1), "line\n");
}

TEST_F(Program, ListenerMaySetTheAddressWhileTheClientIsDestroyed) {
    struct SetsAddress final : iMultiRadarCheckerListener {
        void OnLocalIpChanged(unsigned int localIp) override {
            called = true;
            EXPECT_TRUE(comesTrue([&] { return destroyed.load(); }));
            client->setLocalIP(localIp + 1);
        }
        MultiRadarClient* client = nullptr;
        std::atomic<bool> called = false;
        std::atomic<bool> destroyed = false;
    };
    const ProfileDirectory profile;
    for (int i = 0; i < 3; ++i) {
        SetsAddress listener;
        MultiRadarClient client;
        listener.client = &client;
        client.addListener(&listener);
        client.setLocalIP(net::transAddr("127.0.0.1"));
        EXPECT_TRUE(comesTrue([&] { return listener.called.load(); }, 60s));
        listener.destroyed = true; // from now on, before the listener looks again
    }
}

TEST_F(Program, DestroyedClientStartsNoFurtherCommand) {
    net::detail::Timing timing;
    timing.search.beacons = 50ms;
    net::detail::setTiming(timing);
    ASSERT_EQ(std::system("ip addr add 10.1.0.2/24 dev eth0"), 0);
    const Commands commands; // a receiver of the radars' answers waits for its own
    const std::string log = commands.path() / "calls";
    commands.add("sudo", "case \"$*\" in *" + std::string(wire::kDiscovery.address) + "*) echo call >> " +
                             log + "; sleep 1 ;; esac");
    net::UdpSender beacons(wire::kBeacon.address, wire::kBeacon.port, m_local, 0);
    beacons.setMulticastLoop(true);
    const auto calls = [&] { return std::ranges::count(commands.read("calls"), '\n'); };
    {
        const MultiRadarClient client;
        EXPECT_TRUE(comesTrue([&] { return beacons.sendData("aabbccdd", 8) == 8 && calls() > 0; }));
    }
    EXPECT_EQ(calls(), 1) << "though beacons came on both addresses";
    std::system("ip addr del 10.1.0.2/24 dev eth0");
}

TEST_F(Program, NegotiatorThatACallbackDestroysTakesAllAlongButTheCallingThread) {
    const auto threads = otherThreads();
    net::detail::Timing timing;
    timing.objection = 1h;
    net::detail::setTiming(timing);
    { // a login is under way when its negotiator ends
        HostNegotiator ended(nullptr, [](std::uint8_t) { ADD_FAILURE(); });
        ASSERT_TRUE(ended.asyncLogin(20));
    }
    timing.objection = 50ms;
    net::detail::setTiming(timing);
    const auto held = std::make_shared<int>(0); // by the callback object
    std::atomic<bool> destroyed = false;
    std::unique_ptr<HostNegotiator> negotiator;
    negotiator = std::make_unique<HostNegotiator>(nullptr, [&, held](std::uint8_t) {
        negotiator.reset();
        destroyed = true;
    });
    ASSERT_TRUE(negotiator->asyncLogin(20));
    EXPECT_TRUE(comesTrue([&] { return destroyed && held.use_count() == 1 && otherThreads() == threads; }));

    negotiator =
        std::make_unique<HostNegotiator>(nullptr, [](std::uint8_t) { throw std::runtime_error("x"); });
    EXPECT_THROW(negotiator->syncLogin(20), std::runtime_error) << "it reaches the application";
    EXPECT_EQ(outOf([&] { EXPECT_EQ(negotiator->syncLogin(21), 0); }), "syncLogin:Already login\n")
        << "the id is held all the same";
}

class ReceiverOnAnInterface : public Program {
protected:
    ReceiverOnAnInterface() {
        net::detail::Timing timing;
        timing.receiverRepair = timing.senderLook = 100ms;
        net::detail::setTiming(timing);
    }
    bool hears() {
        m_sender.sendData("x", 1);
        return m_recorder.next(20ms).has_value();
    }
    bool hearsAgain(std::chrono::seconds deadline = 15s) {
        while (m_recorder.next(0ms))
            continue;
        return comesTrue([&] { return hears(); }, deadline);
    }
};

TEST_F(ReceiverOnAnInterface, AndItsSenderTakeUpALateAddressWhileDatagramsArriveFromElsewhere) {
    const net::UdpReceiver receiver(&m_recorder, net::transAddr("10.7.0.1"), kGroup, 5000, 64);
    net::UdpSender sender(kGroup, 5000, net::transAddr("10.7.0.1"), 5009);
    sender.setMulticastLoop(true);
    const net::UdpReceiver other(nullptr, m_local, kGroup, 5001, 64); // joins the group on eth0
    EXPECT_TRUE(comesTrue([&] { return hears(); })) << "one whose join was refused hears what arrives";
    ASSERT_EQ(std::system("ip link add late type veth peer name farlate && ip link set farlate up && "
                          "ip addr add 10.7.0.1/24 dev late && ip link set late up"),
              0);
    int unheard = 0; // tied to its own interface, it hears eth0 no more
    EXPECT_TRUE(comesTrue([&] { return (unheard = hears() ? 0 : unheard + 1) == 10; }));
    sender.sendData("late", 4);
    EXPECT_EQ(m_recorder.next().value_or(Datagram{}).from, "10.7.0.1:5009");

    ASSERT_EQ(std::system("ip addr del 10.7.0.1/24 dev late && ip addr add 10.7.0.1/24 dev eth0"), 0);
    EXPECT_TRUE(hearsAgain());
    while (m_recorder.next(50ms))
        continue;
    EXPECT_TRUE(comesTrue([&] {
        return sender.sendMultipleDatas({{"moved", 5}}) == 1 && m_recorder.next(20ms);
    })) << "the interface that had the address is still up";
    std::system("ip addr del 10.7.0.1/24 dev eth0; ip link del late");
}

} // namespace
