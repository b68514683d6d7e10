#include "fake_engine.h"

#include "../recorder.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/tcpsocket.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <set>

namespace {

using namespace std::chrono_literals;
using radar::Stream;
using radar::StreamEvent;
using radar::StreamOptions;
using Kind = StreamEvent::Kind;
using Why = StreamEvent::Why;

/// Sends numbered datagrams from the host.
class Source {
public:
    Source(const lab::Node& host, const std::string& group, std::uint16_t port)
        : m_sender(
              makeIn<net::UdpSender>(host, group.c_str(), port, inet_addr("10.20.1.1"), std::uint16_t{0})) {}
    ~Source() { stop(); }

    void send(std::uint32_t count = 1) {
        for (; count > 0; --count) {
            const std::uint32_t number = htonl(m_number++);
            char bytes[200]{};
            std::memcpy(bytes, &number, sizeof number);
            m_sender->sendData(bytes, sizeof bytes);
        }
    }
    void start() {
        m_running = true;
        m_thread = std::thread([this] {
            for (; m_running; std::this_thread::sleep_for(5ms))
                send();
        });
    }
    void stop() {
        m_running = false;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::unique_ptr<net::UdpSender> m_sender;
    std::uint32_t m_number = 0;
    std::atomic<bool> m_running = false;
    std::thread m_thread;
};

std::uint32_t numberOf(const radar::Datagram& datagram) {
    std::uint32_t number;
    std::memcpy(&number, datagram.data, sizeof number);
    return ntohl(number);
}

constexpr const char* kGroup = "236.6.7.48";
constexpr const char* kOtherGroup = "236.6.7.64";
constexpr std::uint16_t kPort = 6032;

class StreamTest : public testing::Test {
protected:
    std::unique_ptr<Stream> reader(const StreamOptions& options = {}) {
        return radar::StreamDoor::stream(m_engine, "North", radar::Image, options);
    }
    std::unique_ptr<Stream> caller(Stream::OnDatagram onDatagram, Stream::OnEvent onEvent = {},
                                   const StreamOptions& options = {}) {
        return radar::StreamDoor::stream(m_engine, "North", radar::Image, options, std::move(onDatagram),
                                         std::move(onEvent));
    }
    static bool happens(Stream& stream, Kind kind, Why why = Why::None) {
        return comesTrue([&] {
            const auto event = stream.nextEvent();
            return event && event->kind == kind && event->why == why;
        });
    }
    /// Reads until so many have come, or none comes for a second.
    static std::vector<std::uint32_t> readNumbers(Stream& stream, std::size_t wanted) {
        std::vector<std::uint32_t> numbers;
        radar::Datagram datagrams[Stream::kMostAtOnce];
        for (int silent = 0; numbers.size() < wanted && silent < 10;) {
            const std::size_t count = stream.read(datagrams, std::size(datagrams), 100ms);
            silent = count == 0 ? silent + 1 : 0;
            for (std::size_t i = 0; i < count; ++i)
                numbers.push_back(numberOf(datagrams[i]));
        }
        return numbers;
    }
    static std::vector<std::uint32_t> upTo(std::uint32_t end) {
        std::vector<std::uint32_t> numbers(end);
        for (std::uint32_t i = 0; i < end; ++i)
            numbers[i] = i;
        return numbers;
    }

    lab::Lan m_lan{{lab::display(1), lab::radarHost(1)}};
    const lab::Node& m_host = m_lan.node("host1");
    const lab::Inside m_inside = m_lan.node("display").enter();
    std::shared_ptr<FakeEngine> m_engine = std::make_shared<FakeEngine>();
};

TEST_F(StreamTest, DeliversDatagramsWithTimeAndSource) {
    StreamOptions options;
    options.sequence.emplace();
    options.largestDatagram = 100;
    const auto stream = reader(options);
    m_engine->tellImage(kGroup, kPort);
    ASSERT_TRUE(happens(*stream, Kind::Started));
    Source source(m_host, kGroup, kPort);
    const auto before = std::chrono::system_clock::now();
    source.send(2);
    radar::Datagram datagrams[4];
    ASSERT_TRUE(comesTrue([&] { return stream->read(datagrams, 1, 1s) == 1; }));
    EXPECT_EQ(datagrams[0].source, inet_addr("10.20.1.1"));
    EXPECT_NE(datagrams[0].sourcePort, 0);
    EXPECT_EQ(datagrams[0].size, 100U);
    EXPECT_GE(datagrams[0].arrival, before);
    EXPECT_LE(datagrams[0].arrival, std::chrono::system_clock::now());
    EXPECT_EQ(readNumbers(*stream, 1), std::vector<std::uint32_t>{1});
    source.send(500);
    EXPECT_EQ(readNumbers(*stream, 500).size(), 500U);
    const radar::Statistics statistics = stream->statistics();
    EXPECT_EQ(statistics.datagrams, 502U);
    EXPECT_EQ(statistics.bytes, 50200U);
    EXPECT_EQ(statistics.cut, 502U);
    EXPECT_EQ(statistics.missing + statistics.repeated + statistics.reordered, 0U);
    EXPECT_EQ(statistics.droppedAtSocket, 0U);
}

TEST_F(StreamTest, LosesNothingThatTheSystemHadTakenWhenItMoves) {
    const auto stream = reader();
    Source source(m_host, kGroup, kPort);
    m_engine->tellImage(kGroup, kPort);
    ASSERT_TRUE(happens(*stream, Kind::Started));
    Recorder witness; // has a datagram when the system has taken it for all
    auto beside = makeIn<net::UdpReceiver>(m_lan.node("display"), &witness, inet_addr("10.20.2.1"), kGroup,
                                           static_cast<unsigned short>(kPort), 65536);
    source.send(100);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(witness.next());
    beside.reset();
    m_engine->tellImage(kOtherGroup, kPort);
    ASSERT_TRUE(happens(*stream, Kind::Moved, Why::Endpoint));
    source.send(10); // where nobody is any more
    Source other(m_host, kOtherGroup, kPort);
    other.send(50);
    std::vector<std::uint32_t> expected = upTo(100);
    for (const std::uint32_t number : upTo(50))
        expected.push_back(number);
    EXPECT_EQ(readNumbers(*stream, 150), expected);
    EXPECT_EQ(stream->statistics().datagrams, 150U);
}

TEST_F(StreamTest, CountsDropsAlsoOfSocketsThatAreClosed) {
    StreamOptions options;
    options.receiveBuffer = 4096;
    const auto stream = reader(options);
    Source source(m_host, kGroup, kPort);
    m_engine->tellImage(kGroup, kPort);
    ASSERT_TRUE(happens(*stream, Kind::Started));
    source.send(1000);
    ASSERT_TRUE(comesTrue([&] { return stream->statistics().droppedAtSocket > 500; }));
    m_engine->tellImage(kOtherGroup, kPort);
    ASSERT_TRUE(happens(*stream, Kind::Moved, Why::Endpoint));
    const std::size_t taken = readNumbers(*stream, 1000).size();
    EXPECT_EQ(stream->statistics().droppedAtSocket, 1000 - taken);
}

TEST_F(StreamTest, ReadingEndsByTimeByAnEventAndByDestruction) {
    auto stream = reader();
    radar::Datagram datagram;
    EXPECT_EQ(stream->read(&datagram, 1, 0ms), 0U);
    EXPECT_GE(timeOf([&] { EXPECT_EQ(stream->read(&datagram, 1, 50ms), 0U); }), 50ms);
    m_engine->tellImage(kGroup, kPort);
    EXPECT_EQ(stream->read(&datagram, 1, -1ms), 0U);
    EXPECT_EQ(stream->nextEvent()->kind, Kind::Started);
    EXPECT_GE(timeOf([&] { EXPECT_EQ(stream->read(&datagram, 1, 50ms), 0U); }), 45ms);
    std::thread waiting([raw = stream.get()] {
        radar::Datagram own;
        EXPECT_EQ(raw->read(&own, 1, -1ms), 0U);
    });
    std::this_thread::sleep_for(20ms); // in whichever state it meets it
    stream.reset();
    waiting.join();
}

TEST_F(StreamTest, DescriptorIsReadableForDatagramsAndEvents) {
    const auto stream = reader();
    pollfd readable{stream->descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
    m_engine->tellImage(kGroup, kPort);
    EXPECT_EQ(::poll(&readable, 1, 15000), 1);
    EXPECT_TRUE(happens(*stream, Kind::Started));
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
    Source(m_host, kGroup, kPort).send();
    EXPECT_EQ(::poll(&readable, 1, 15000), 1);
    EXPECT_EQ(readNumbers(*stream, 1).size(), 1U);
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
}

TEST_F(StreamTest, IsDestroyedInEveryState) {
    Source source(m_host, kGroup, kPort);
    source.start();
    for (const bool pooled : {false, true}) {
        StreamOptions options;
        if (pooled)
            options.pool.emplace(radar::Pool::Options{1});
        m_engine->tell([](radar::detail::Situation& situation) { situation.radar.reset(); });
        caller([](const radar::Datagram&) {}, {}, options).reset(); // not started
        m_engine->tellImage(kOtherGroup, kPort);
        std::atomic<int> events = 0;
        auto silent = caller([](const radar::Datagram&) {}, [&](const StreamEvent&) { ++events; }, options);
        EXPECT_TRUE(comesTrue([&] { return events == 1; }));
        silent.reset();

        m_engine->tellImage(kGroup, kPort);
        for (const bool byEvent : {false, true}) { // from inside
            std::unique_ptr<Stream> own;
            std::atomic<bool> made = false;
            std::atomic<bool> destroyed = false;
            const auto destroy = [&] {
                while (!made)
                    std::this_thread::yield();
                own.reset();
                destroyed = true;
            };
            own = caller(
                [&](const radar::Datagram&) {
                    ASSERT_FALSE(destroyed);
                    if (!byEvent)
                        destroy();
                },
                [&](const StreamEvent&) {
                    if (byEvent)
                        destroy();
                },
                options);
            made = true;
            EXPECT_TRUE(comesTrue([&] { return destroyed.load(); }));
        }

        std::atomic<bool> inside = false; // from another thread, in a callback
        std::atomic<bool> ended = false;
        auto busy = caller(
            [&](const radar::Datagram&) {
                inside = true;
                std::this_thread::sleep_for(50ms);
                ended = true;
            },
            {}, options);
        EXPECT_TRUE(comesTrue([&] { return inside.load(); }));
        busy.reset();
        EXPECT_TRUE(ended);
    }
}

TEST_F(StreamTest, MemoryThatRunsOutCostsADatagram) {
    Source source(m_host, kGroup, kPort);
    m_engine->tellImage(kGroup, kPort);
    Output output;
    Log<std::uint32_t> numbers;
    std::atomic<bool> started = false;
    const auto stream = caller(
        [&](const radar::Datagram& datagram) {
            if (numberOf(datagram) == 1)
                throw std::bad_alloc();
            numbers.add(numberOf(datagram));
        },
        [&](const StreamEvent&) {
            started = true;
            throw std::bad_alloc();
        });
    ASSERT_TRUE(comesTrue([&] { return started.load(); }));
    source.send(3);
    EXPECT_TRUE(numbers.reaches(2));
    EXPECT_EQ(numbers.all(), (std::vector<std::uint32_t>{0, 2}));
}

TEST_F(StreamTest, AChildProcessThatEndsDisturbsNothing) {
    Source source(m_host, kGroup, kPort);
    m_engine->tellImage(kGroup, kPort);
    Log<std::uint32_t> numbers;
    auto called = caller([&](const radar::Datagram& datagram) { numbers.add(numberOf(datagram)); });
    auto read = reader();
    ASSERT_TRUE(happens(*read, Kind::Started));
    source.send();
    ASSERT_TRUE(numbers.reaches(1));
    const pid_t child = ::fork();
    if (child == 0) {
        radar::Datagram datagram;
        const std::size_t count = read->read(&datagram, 1, -1ms);
        called.reset();
        read.reset();
        ::_exit(static_cast<int>(count));
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    source.send();
    EXPECT_TRUE(numbers.reaches(2));
    EXPECT_EQ(readNumbers(*read, 2), upTo(2));
}

TEST_F(StreamTest, TwoHundredStreamsShareAPoolOfTwoThreads) {
    constexpr int streams = 200;
    const auto threads = [] { // of streams
        int count = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::ifstream(task.path() / "comm") >> name;
            count += name == "radar-pool" || name == "radar-stream" ? 1 : 0;
        }
        return count;
    };
    StreamOptions options;
    options.pool.emplace(radar::Pool::Options{2});
    options.receiveBuffer = 65536;
    std::vector<std::unique_ptr<Stream>> all;
    std::atomic<int> started = 0;
    std::vector<std::atomic<int>> counts(streams);
    for (int i = 0; i < streams; ++i) {
        m_engine->tell([i](radar::detail::Situation& situation) {
            situation.radar.emplace().streams.resize(1);
            situation.radar->streams[0].imageStream = {
                inet_addr(("236.6.8." + std::to_string(i + 1)).c_str()), htons(6000), 0};
        });
        auto stream = caller(
            [&, i](const radar::Datagram&) { ++counts[static_cast<std::size_t>(i)]; },
            [&](const StreamEvent& event) { started += event.kind == Kind::Started ? 1 : 0; }, options);
        ASSERT_TRUE(comesTrue([&] { return started == i + 1; })) << i;
        m_engine->unfollowAll(); // it stays where it is
        all.push_back(std::move(stream));
    }
    EXPECT_EQ(threads(), 2);
    options.pool.reset();
    for (int i = 0; i < streams; ++i)
        Source(m_host, "236.6.8." + std::to_string(i + 1), 6000).send(3);
    EXPECT_TRUE(comesTrue([&] {
        return std::all_of(counts.begin(), counts.end(), [](const auto& count) { return count == 3; });
    }));
    all.clear();
    EXPECT_TRUE(comesTrue([&] { return threads() == 0; }));
}

/// A bridge that sends a group only to ports from which a membership was reported.
class ForgetfulSwitch : public StreamTest {
protected:
    ForgetfulSwitch() {
        bridge("ip link set lan0 type bridge mcast_snooping 1 mcast_querier 1 mcast_startup_query_count 1 && "
               "bridge link set dev display-eth0 mcast_flood off");
    }
    void bridge(const std::string& commands) {
        const lab::Inside inside = lab::Inside(m_outside);
        ASSERT_EQ(std::system(commands.c_str()), 0);
    }
    void forget() {
        bridge("bridge mdb del dev lan0 port display-eth0 grp " + std::string(kGroup) + " temp");
    }
    const net::detail::Descriptor m_outside{::open("/run/netns/lan", O_RDONLY | O_CLOEXEC)};
    Source m_source{m_host, kGroup, kPort};
};

TEST_F(ForgetfulSwitch, IsReminded) {
    m_engine->tellImage(kGroup, kPort);
    Log<StreamEvent> events;
    std::atomic<int> count = 0;
    const auto stream = caller([&](const radar::Datagram&) { ++count; },
                               [&](const StreamEvent& event) { events.add(event); });
    m_source.start();
    ASSERT_TRUE(comesTrue([&] { return count > 0; }));
    std::this_thread::sleep_for(12s); // past the switch's first query, which would make us report
    forget();
    EXPECT_LT(timeOf([&] {
                  EXPECT_TRUE(comesTrue([&] {
                      const auto all = events.all();
                      return !all.empty() && all.back().why == Why::SwitchForgot;
                  }));
              }),
              15s);
    ASSERT_EQ(events.all().size(), 3U);
    EXPECT_EQ(events.all()[0].kind, Kind::Started);
    EXPECT_EQ(events.all()[1].kind, Kind::Silent);
    EXPECT_EQ(events.all()[2].kind, Kind::Resumed);
    EXPECT_EQ(events.all()[2].endpoint.ip, inet_addr(kGroup));
}

TEST_F(StreamTest, SaysThatOthersHoldTheGroup) {
    m_engine->tellImage(kGroup, kPort);
    Recorder recorder;
    const net::UdpReceiver other(&recorder, inet_addr("10.20.2.1"), kGroup, kPort, 1000);
    const auto stream = reader();
    const auto sibling = reader();
    ASSERT_TRUE(happens(*stream, Kind::Started));
    Source(m_host, kGroup, kPort).send(3);
    EXPECT_EQ(readNumbers(*stream, 3).size(), 3U);
    EXPECT_TRUE(happens(*stream, Kind::Silent));
    std::optional<StreamEvent> event;
    ASSERT_TRUE(comesTrue([&] { return (event = stream->nextEvent()).has_value(); }));
    EXPECT_EQ(event->why, Why::OthersJoined);
    EXPECT_EQ(event->others, 1U);
}

class TcpPeer : public net::iTcpDataListener {
public:
    void OnTcpDataReceived(int, const char*, unsigned short, const char* data, int length) override {
        m_received.add(std::string(data, static_cast<std::size_t>(length)));
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}
    Log<std::string> m_received;
};

TEST_F(StreamTest, FollowsTcpEndpointsOfBothKinds) {
    const Output output; // TCP endpoints log
    TcpPeer peer;
    Log<std::string> received;
    m_engine->tellImage("10.20.1.1", 9000, radar::detail::kTcpClient);
    const auto stream =
        caller([&](const radar::Datagram& piece) { received.add(std::string(piece.data, piece.size)); });
    const auto control = radar::StreamDoor::control(m_engine, "North", radar::ImageControl, 0);
    {
        const auto server = makeIn<net::TcpServer>(m_host, &peer);
        {
            const lab::Inside inside = m_host.enter();
            ASSERT_TRUE(server->connect("10.20.1.1", 9000, 8));
        }
        EXPECT_TRUE(comesTrue([&] { return server->numOfClients() == 2; }));
        EXPECT_TRUE(comesTrue([&] { return control->send("set", 3); }));
        EXPECT_TRUE(peer.m_received.reaches(1));
        EXPECT_EQ(peer.m_received.all()[0], "set");
        server->sendData("picture", 7);
        EXPECT_TRUE(received.reaches(1));
        EXPECT_EQ(received.all()[0], "picture");
    }
    m_engine->tellImage("10.20.2.1", 9001, radar::detail::kTcpServer);
    const auto client =
        makeIn<net::TcpClient>(m_host, &peer, "10.20.2.1", std::uint16_t{9001}, inet_addr("10.20.1.1"));
    ASSERT_TRUE(comesTrue([&] {
        const lab::Inside inside = m_host.enter();
        return client->connectOnce();
    }));
    received.clear();
    EXPECT_TRUE(comesTrue([&] { return client->sendData("more", 4) && received.reaches(1, 200ms); }));
    EXPECT_EQ(received.all()[0].substr(0, 4), "more");
}

TEST_F(StreamTest, ControlTakesUpWhatWasRefusedAndWhatWasLost) {
    net::detail::Timing timing;
    timing.clientTick = 20ms; // eleven of them make an attempt
    net::detail::setTiming(timing);
    const Output output; // TCP endpoints log
    TcpPeer peer;
    const auto control = radar::StreamDoor::control(m_engine, "North", radar::ImageControl, 0);
    const auto reaches = [&](auto connect) {
        const lab::Inside inside = m_host.enter();
        return comesTrue([&] {
            connect();
            return control->send("set", 3) && peer.m_received.reaches(1, 50ms);
        });
    };
    {
        const auto server = makeIn<net::TcpServer>(m_host, &peer);
        const auto serve = [&] {
            const lab::Inside inside = m_host.enter();
            EXPECT_TRUE(server->connect("10.20.1.1", 9000, 8));
        };
        m_engine->tellImage("10.20.1.1", 9000, radar::detail::kTcpClient);
        EXPECT_TRUE(comesTrue([&] { return !control->send("x", 1) && errno == ENOTCONN; }));
        serve();
        EXPECT_TRUE(reaches([] {}));
        serve(); // and its connections are lost
        peer.m_received.clear();
        EXPECT_TRUE(reaches([] {}));
    }
    net::TcpServer other(nullptr);
    ASSERT_TRUE(other.connect(9001, 1));
    m_engine->tellImage("10.20.2.1", 9001, radar::detail::kTcpServer);
    EXPECT_TRUE(comesTrue([&] { return !control->send("x", 1) && errno == EADDRINUSE; }));
    other.disconnect();
    EXPECT_TRUE(comesTrue([&] { return !control->send("x", 1) && errno == ENOTCONN; }));
    const auto client =
        makeIn<net::TcpClient>(m_host, &peer, "10.20.2.1", std::uint16_t{9001}, inet_addr("10.20.1.1"));
    peer.m_received.clear();
    EXPECT_TRUE(reaches([&] { client->isConnected() || client->connectOnce(); }));
    EXPECT_THAT(output.err(), testing::Not(testing::HasSubstr("function[bind]")));
    net::detail::setTiming({});
}

TEST_F(StreamTest, ReaderThatSleptFindsTheLast64EventsAndIsWhereTheRadarIs) {
    constexpr unsigned moves = 100;
    const auto stream = reader();
    for (unsigned i = 0; i < moves; ++i) {
        m_engine->tellImage(("236.6.8." + std::to_string(i + 1)).c_str(), kPort);
        m_engine->awaitTold();
    }
    std::vector<StreamEvent> events;
    while (auto event = stream->nextEvent())
        events.push_back(*event);
    ASSERT_EQ(events.size(), 64U);
    EXPECT_EQ(events.front().missed, moves - 64);
    EXPECT_EQ(events.front().kind, Kind::Moved);
    EXPECT_EQ(events.back().missed, 0U);
    EXPECT_EQ(events.back().endpoint.ip, inet_addr("236.6.8.100"));
    Source(m_host, "236.6.8.100", kPort).send();
    EXPECT_EQ(readNumbers(*stream, 1), upTo(1));
}

TEST_F(StreamTest, ControlSendsToWhereTheRadarIs) {
    const auto control = radar::StreamDoor::control(m_engine, "North", radar::ImageControl, 0);
    EXPECT_FALSE(control->send("x", 1));
    EXPECT_EQ(errno, ENOENT);
    for (const char* group : {kGroup, kOtherGroup}) {
        Recorder host;
        const auto receiver =
            makeIn<net::UdpReceiver>(m_host, &host, inet_addr("10.20.1.1"), group, kPort, 1000);
        m_engine->tellImage(group, kPort);
        std::optional<Datagram> heard;
        EXPECT_TRUE(comesTrue([&] {
            EXPECT_TRUE(control->send("set", 3) || errno == ENOENT);
            return (heard = host.next(50ms)).has_value();
        }));
        EXPECT_EQ(heard->bytes, "set");
        EXPECT_THAT(heard->from, testing::StartsWith("10.20.2.1:"));
    }
    m_engine->tell([](radar::detail::Situation& situation) { situation.interfaceIndex = 0; });
    EXPECT_TRUE(comesTrue([&] { return !control->send("x", 1) && errno == ENETDOWN; }));
}

} // namespace
