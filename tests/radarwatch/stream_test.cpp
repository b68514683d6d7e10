// Streams and Controls on an engine that says where the radar is.
#include "../faults.h"
#include "../interrupt.h"
#include "../tcp_support.h"
#include "asleep.h"
#include "fake_engine.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/tcpsocket.h>

#include <lab/lan.h>

#include <numeric>

namespace {

using radar::Stream;
using radar::StreamEvent;
using radar::StreamOptions;
using Kind = StreamEvent::Kind;
using Why = StreamEvent::Why;

constexpr const char* kGroup = "236.6.7.48";
constexpr const char* kOtherGroup = "236.6.7.64";
constexpr std::uint16_t kPort = 6032;

/// Sends numbered datagrams from the host.
class Source {
public:
    Source(const lab::Node& host, const char* group)
        : m_sender(makeIn<net::UdpSender>(host, group, kPort, inet_addr("10.20.1.1"), std::uint16_t{0})) {}

    void send(std::uint32_t count = 1) {
        for (; count > 0; --count) {
            const std::uint32_t number = htonl(m_number++);
            char bytes[200]{};
            std::memcpy(bytes, &number, sizeof number);
            m_sender->sendData(bytes, sizeof bytes);
        }
    }

private:
    std::unique_ptr<net::UdpSender> m_sender;
    std::uint32_t m_number = 0;
};

std::uint32_t numberOf(const radar::Datagram& datagram) {
    std::uint32_t number;
    std::memcpy(&number, datagram.data, sizeof number);
    return ntohl(number);
}

class StreamTest : public testing::Test {
protected:
    StreamTest() {
        net::detail::Timing timing;
        timing.clientTick = 20ms; // eleven of them make an attempt
        net::detail::setTiming(timing);
    }
    void makeControl() { m_control = radar::StreamDoor::control(m_engine, "North", radar::ImageControl, 0); }
    /// Of sending by the Control; 0: it has been sent.
    int errorOf(const std::string& bytes) {
        errno = 0;
        return m_control->send(bytes.data(), bytes.size()) ? 0 : errno;
    }
    std::unique_ptr<Stream> reader(const StreamOptions& options = {}) {
        return radar::StreamDoor::stream(m_engine, "North", radar::Image, options);
    }
    std::unique_ptr<Stream> caller(Stream::OnDatagram onDatagram, Stream::OnEvent onEvent = {},
                                   const StreamOptions& options = {}) {
        return radar::StreamDoor::stream(m_engine, "North", radar::Image, options, std::move(onDatagram),
                                         std::move(onEvent));
    }
    /// The next event; one that is missed, if none comes.
    static StreamEvent next(Stream& stream) {
        std::optional<StreamEvent> event;
        EXPECT_TRUE(comesTrue([&] { return (event = stream.nextEvent()).has_value(); }));
        return event.value_or(StreamEvent{});
    }
    /// Reads until so many have come, or none comes for a second.
    static std::vector<std::uint32_t> readNumbers(Stream& stream, std::size_t wanted) {
        std::vector<std::uint32_t> numbers;
        radar::Datagram datagrams[Stream::kMostAtOnce];
        while (numbers.size() < wanted) {
            const std::size_t count = stream.read(datagrams, std::size(datagrams), 1s);
            if (count == 0)
                break;
            std::transform(datagrams, datagrams + count, std::back_inserter(numbers), numberOf);
        }
        return numbers;
    }
    static std::vector<std::uint32_t> upTo(std::uint32_t end) {
        std::vector<std::uint32_t> numbers(end);
        std::iota(numbers.begin(), numbers.end(), 0U);
        return numbers;
    }

    lab::Lan m_lan{{lab::display(1), lab::radarHost(1)}};
    const lab::Node& m_host = m_lan.node("host1");
    const lab::Inside m_inside = m_lan.node("display").enter();
    std::shared_ptr<FakeEngine> m_engine = std::make_shared<FakeEngine>();
    std::unique_ptr<radar::Control> m_control;
    Source m_source{m_host, kGroup};
};

TEST_F(StreamTest, LosesNothingThatTheSystemHadTakenWhenItMoves) {
    const auto stream = reader();
    m_engine->tellImage(kGroup, kPort);
    EXPECT_EQ(next(*stream).kind, Kind::Started);
    EXPECT_GE(stream->descriptor(), 0);
    Recorder witness; // has a datagram when the system has taken it for all
    auto beside = std::make_unique<net::UdpReceiver>(&witness, inet_addr("10.20.2.1"), kGroup, kPort, 65536);
    m_source.send(100);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(witness.next());
    beside.reset();
    m_engine->tellImage(kOtherGroup, kPort);
    EXPECT_EQ(next(*stream).why, Why::Endpoint);
    m_source.send(10); // where nobody is any more
    Source(m_host, kOtherGroup).send(50);
    std::vector<std::uint32_t> expected = upTo(100);
    for (const std::uint32_t number : upTo(50))
        expected.push_back(number);
    EXPECT_EQ(readNumbers(*stream, 150), expected);
    EXPECT_EQ(stream->statistics().datagrams, 150U);
    for (const char* group : {kOtherGroup, kGroup}) { // each through a socket of its own
        m_engine->tellImage(group, kPort);
        radar::Datagram none;
        EXPECT_EQ(stream->read(&none, 1, 50ms), 0U) << "news";
        EXPECT_EQ(stream->read(&none, 1, 50ms), 0U) << "in time";
    }
}

TEST_F(StreamTest, CountsDropsAlsoOfSocketsThatAreClosed) {
    StreamOptions options;
    options.receiveBuffer = 4096;
    options.sequence.emplace();
    const auto stream = reader(options);
    m_engine->tellImage(kGroup, kPort);
    m_source.send(1000);
    ASSERT_TRUE(comesTrue([&] { return stream->statistics().droppedAtSocket > 500; }));
    m_engine->tellImage(kOtherGroup, kPort);
    while (stream->nextEvent()) {
    }
    const std::size_t taken = readNumbers(*stream, 1000).size();
    EXPECT_EQ(stream->statistics().droppedAtSocket, 1000 - taken);
    m_engine->tellImage(kGroup, kPort);
    m_source.send();
    EXPECT_EQ(readNumbers(*stream, 1).size(), 1U);
    EXPECT_EQ(stream->statistics().missing, 1000 - taken);
}

TEST_F(StreamTest, ReaderLearnsOfDatagramsAndEventsByItsDescriptorAndByReturning) {
    const auto stream = reader();
    radar::Datagram datagram;
    EXPECT_EQ(stream->read(&datagram, 1, 0ms), 0U);
    pollfd readable{stream->descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
    m_engine->tellImage(kGroup, kPort);
    EXPECT_EQ(::poll(&readable, 1, 15000), 1);
    EXPECT_EQ(stream->read(&datagram, 1, -1ms), 0U);
    EXPECT_EQ(next(*stream).kind, Kind::Started);
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
    EXPECT_GE(timeOf([&] { EXPECT_EQ(stream->read(&datagram, 1, 50ms), 0U); }), 45ms);
    const auto before = std::chrono::system_clock::now();
    m_source.send();
    EXPECT_EQ(::poll(&readable, 1, 15000), 1);
    ASSERT_EQ(stream->read(&datagram, 1, -1ms), 1U);
    EXPECT_EQ(::poll(&readable, 1, 0), 0);
    EXPECT_EQ(datagram.source, inet_addr("10.20.1.1"));
    EXPECT_TRUE(before <= datagram.arrival && datagram.arrival <= std::chrono::system_clock::now());
}

TEST_F(StreamTest, ReaderReturnsInTimeAndWhenASignalHandlerRanWithoutARadarToo) {
    const auto stream = reader();
    radar::Datagram datagram;
    std::signal(SIGUSR1, [](int) {});
    std::atomic<bool> returned = false;
    std::thread interrupting([&, reading = pthread_self()] {
        EXPECT_TRUE(comesTrue([&] { return ::pthread_kill(reading, SIGUSR1) != 0 || returned; }));
    });
    EXPECT_LT(timeOf([&] { EXPECT_EQ(stream->read(&datagram, 1, 10s), 0U); }), 10s);
    returned = true;
    interrupting.join();

    m_engine->tellImage(kGroup, kPort); // and it is gone before anybody reads
    m_engine->tell([](radar::detail::Situation& situation) {
        situation.device = "nowhere";
        ++situation.interfaceChange;
    });
    EXPECT_EQ(stream->read(&datagram, 1, 10s), 0U);
    EXPECT_GE(timeOf([&] { EXPECT_EQ(stream->read(&datagram, 1, 50ms), 0U); }), 45ms);
    EXPECT_EQ(next(*stream).kind, Kind::Started);
    EXPECT_EQ(next(*stream).kind, Kind::Refused);
}

TEST_F(StreamTest, IsDestroyedInEveryState) {
    for (const bool pooled : {false, true}) {
        StreamOptions options;
        if (pooled)
            options.pool.emplace(radar::Pool::Options{1});
        m_engine->tell([](radar::detail::Situation& situation) { situation.radar.reset(); });
        caller([](const radar::Datagram&) {}, {}, options).reset(); // not started
        m_engine->tellImage(kGroup, kPort);
        caller([](const radar::Datagram&) {}, {}, options).reset();

        for (const bool byEvent : {false, true}) { // from inside
            std::unique_ptr<Stream> own;
            std::atomic<bool> made = false;
            std::atomic<bool> destroyed = false;
            const auto destroy = [&](bool isEvent) {
                ASSERT_FALSE(destroyed);
                if (isEvent != byEvent)
                    return;
                while (!made)
                    std::this_thread::yield();
                own.reset();
                destroyed = true;
            };
            own = caller([&](const radar::Datagram&) { destroy(false); },
                         [&](const StreamEvent&) { destroy(true); }, options);
            made = true;
            EXPECT_TRUE(comesTrue([&] { return m_source.send(), destroyed.load(); })) << pooled << byEvent;
        }

        LongCallback called;
        auto busy = caller([&](const radar::Datagram&) { called(); }, {}, options);
        m_source.send();
        EXPECT_TRUE(called.isAwaitedBy([&] { busy.reset(); }));
    }
}

TEST_F(StreamTest, TwoHundredStreamsShareAPoolOfTwoThreads) {
    std::thread([] {}).join(); // ThreadSanitizer starts a thread of its own with the first
    const auto before = ProcessResources::now().threads;
    StreamOptions options;
    options.pool.emplace(radar::Pool::Options{2});
    m_engine->tellImage(kGroup, kPort);
    std::vector<std::unique_ptr<Stream>> all;
    std::vector<std::atomic<int>> counts(200);
    std::atomic<int> started = 0;
    for (auto& count : counts)
        all.push_back(caller([&count](const radar::Datagram&) { ++count; },
                             [&](const StreamEvent& event) { started += event.kind == Kind::Started; },
                             options));
    EXPECT_LE(ProcessResources::now().threads,
              before + 2); // where one that has just ended may have been counted
    options.pool.reset();
    EXPECT_TRUE(comesTrue([&] { return started == 200; })) << "without a datagram";
    m_source.send(3);
    EXPECT_TRUE(
        comesTrue([&] { return std::ranges::all_of(counts, [](const auto& count) { return count == 3; }); }));
    all.clear();
    EXPECT_TRUE(comesTrue([&] { return ProcessResources::now().threads <= before; }));
}

TEST_F(StreamTest, FallsSilentWhenNothingIsLeftToReadAndSaysThatOthersHoldTheGroup) {
    m_engine->tellImage(kGroup, kPort);
    Recorder recorder;
    const net::UdpReceiver other(&recorder, inet_addr("10.20.2.1"), kGroup, kPort, 1000);
    const auto stream = reader();
    const auto sibling = reader();
    EXPECT_EQ(next(*stream).kind, Kind::Started);
    for (int i = 0; i < 2; ++i) {
        m_source.send();
        EXPECT_TRUE(recorder.next());
        m_engine->pass(2500ms);
        EXPECT_FALSE(stream->nextEvent());
        EXPECT_EQ(readNumbers(*stream, 1).size(), 1U);
    }
    m_engine->pass(2500ms);
    EXPECT_EQ(next(*stream).kind, Kind::Silent);
    m_engine->pass(1s);
    const StreamEvent event = next(*stream);
    EXPECT_EQ(event.why, Why::OthersJoined);
    EXPECT_EQ(event.others, 1U);
}

/// What a TCP peer has received.
class TcpPeer : public net::iTcpDataListener, public Log<std::string> {
    void OnTcpDataReceived(int, const char*, unsigned short, const char* data, int length) override {
        add(std::string(data, static_cast<std::size_t>(length)));
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}
};

TEST_F(StreamTest, AndControlFollowEndpointsOfEveryKindAndTakeUpWhatWasLost) {
    const Output output; // TCP endpoints log
    TcpPeer peer;
    Log<std::string> received;
    makeControl();
    const auto isRefused = [&](int error) { return comesTrue([&] { return errorOf("x") == error; }); };
    EXPECT_TRUE(isRefused(ENOENT));
    {
        Recorder host;
        const auto receiver =
            makeIn<net::UdpReceiver>(m_host, &host, inet_addr("10.20.1.1"), kGroup, kPort, 1000);
        m_engine->tellImage(kGroup, kPort);
        EXPECT_TRUE(comesTrue([&] { return errorOf("set") == 0 && host.nextBytes(50ms) == "set"; }));
    }
    m_engine->tellImage("10.20.1.1", 9000, radar::detail::kTcpClient);
    EXPECT_TRUE(isRefused(ENOTCONN));
    std::atomic<int> refusals = 0;
    auto stream = // whose first socket is one of TCP
        caller([&](const radar::Datagram& piece) { received.add(std::string(piece.data, piece.size)); },
               [&](const StreamEvent& event) { refusals += event.kind == Kind::Refused; });
    {
        const auto server = makeIn<net::TcpServer>(m_host, &peer);
        for (int serving = 0; serving < 2; ++serving) { // the second time, the connections are lost
            const lab::Inside inside = m_host.enter();
            EXPECT_TRUE(server->connect("10.20.1.1", 9000, 8));
            peer.clear();
            EXPECT_TRUE(comesTrue(
                [&] { return server->numOfClients() == 2 && errorOf("set") == 0 && peer.reaches(1, 50ms); }));
        }
        EXPECT_EQ(peer.all()[0], "set");
        server->sendData("picture", 7);
        EXPECT_TRUE(received.reaches(1));
        EXPECT_EQ(received.all()[0], "picture");
    }

    makeControl(); // the stream is to have the port
    net::TcpServer other(nullptr);
    ASSERT_TRUE(other.connect(9001, 1));
    m_engine->tellImage("10.20.2.1", 9001, radar::detail::kTcpServer);
    EXPECT_TRUE(isRefused(EADDRINUSE));
    other.disconnect();
    const auto client =
        makeIn<net::TcpClient>(m_host, &peer, "10.20.2.1", std::uint16_t{9001}, inet_addr("10.20.1.1"));
    const auto isConnected = [&] {
        const lab::Inside inside = m_host.enter();
        return client->isConnected() || client->connectOnce();
    };
    received.clear();
    EXPECT_TRUE(
        comesTrue([&] { return isConnected() && client->sendData("more", 4) && received.reaches(1, 50ms); }));
    EXPECT_EQ(received.all()[0].substr(0, 4), "more");
    m_engine->tell([](radar::detail::Situation& situation) { ++situation.interfaceChange; });
    EXPECT_EQ(refusals, 1) << "the other's port, and not that of its own older socket";
    stream.reset();
    peer.clear();
    EXPECT_TRUE(comesTrue([&] { return isConnected() && errorOf("set") == 0 && peer.reaches(1, 50ms); }));
    EXPECT_THAT(output.err(), testing::Not(testing::HasSubstr("function[bind]")));
    m_engine->tell([](radar::detail::Situation& situation) { situation.interfaceIndex = 0; });
    EXPECT_TRUE(isRefused(ENETDOWN));
}

TEST_F(StreamTest, ControlSaysWhatBecomesOfBytesForAPeerThatDoesNotRead) {
    const Output output; // TCP endpoints log
    const std::string much(16 << 20, 'x');
    makeControl();
    m_engine->tell([](auto& situation) { situation.localAddress = inet_addr(tcp_test::kLocal); });

    std::optional<tcp_test::Listening> listening(std::in_place);
    m_engine->tellImage(tcp_test::kLocal, listening->port(), radar::detail::kTcpClient);
    EXPECT_EQ(errorOf(""), ENOTCONN);
    tcp_test::Peer peer = listening->accept();
    listening.reset(); // there is no second connection
    EXPECT_TRUE(comesTrue([&] { return errorOf("") == 0; }));
    EXPECT_EQ(errorOf("x"), 0) << "nothing to send costs no connection";
    std::atomic<int> asleep = 0;
    {
        std::vector<std::jthread> senders;
        for (int i = 0; i < 2; ++i) // the second one waits for the first
            senders.emplace_back([&] {
                const std::jthread watching(
                    [&, self = ::gettid()] { asleep += comesTrue([&] { return isAsleep(self); }); });
                EXPECT_THAT(errorOf(much), testing::AnyOf(ENOTCONN, ECONNRESET, EPIPE));
            });
        EXPECT_TRUE(comesTrue([&] { return asleep == 2; }));
        peer.reset();
    }

    const std::uint16_t serving = tcp_test::freePort();
    m_engine->tellImage(tcp_test::kLocal, serving, radar::detail::kTcpServer);
    const tcp_test::Peer older(serving);
    EXPECT_TRUE(comesTrue([&] { return errorOf("") == 0; }));
    EXPECT_TRUE(comesTrue([&] { return errorOf(much) == EAGAIN; }));
    EXPECT_EQ(errorOf("x"), EAGAIN);
    const tcp_test::Peer newer(serving);
    EXPECT_TRUE(comesTrue([&] { return errorOf("set") == 0; })) << "where the older one still reads nothing";
    EXPECT_EQ(newer.read(3), "set");
}

TEST_F(StreamTest, OfTcpThatNobodyReadsHoldsItsPeerUpLosesNothingAndEndsAtOnce) {
    const Output output; // TCP endpoints log
    m_engine->tell([](auto& situation) { situation.localAddress = inet_addr(tcp_test::kLocal); });
    const std::uint16_t serving = tcp_test::freePort();
    auto stream = reader();
    m_engine->tellImage(tcp_test::kLocal, serving, radar::detail::kTcpServer);
    const tcp_test::Peer peer(serving);
    std::string much(32 << 20, '\0'); // more than the connection holds
    std::ranges::generate(much, [value = 0U]() mutable { return static_cast<char>((value += 7) / 256); });
    sigset_t profiler;
    sigemptyset(&profiler);
    sigaddset(&profiler, SIGPROF);
    ::pthread_sigmask(SIG_BLOCK, &profiler, nullptr); // in the threads of this test
    std::atomic<bool> sent = false;
    const auto send = [&] { sent = peer.send(much); };
    const Fault fault("send", ENOBUFS, 2, 9); // not of the peer
    std::jthread sender(send);
    EXPECT_FALSE(comesTrue([&] { return sent.load(); }, 100ms));
    EXPECT_TRUE(fault.hit());
    interruptThreads();
    std::string taken;
    for (radar::Datagram piece; taken.size() < much.size() && stream->read(&piece, 1, 10s) == 1;)
        taken.append(piece.data, piece.size);
    EXPECT_TRUE(taken == much);
    sender.join();
    EXPECT_TRUE(sent.exchange(false));
    sender = std::jthread(send);
    EXPECT_FALSE(comesTrue([&] { return sent.load(); }, 100ms));
    EXPECT_LT(timeOf([&] { stream.reset(); }), 5s);
}

TEST_F(StreamTest, ReaderThatSleptFindsTheLast64EventsAndIsWhereTheRadarIs) {
    constexpr unsigned moves = 100;
    const auto stream = reader();
    const auto before = ProcessResources::now().descriptors;
    for (unsigned i = 1; i <= moves; ++i)
        m_engine->tellImage(i < moves ? ("236.6.8." + std::to_string(i)).c_str() : kGroup, kPort);
    EXPECT_LE(ProcessResources::now().descriptors, before + 8);
    std::vector<StreamEvent> events;
    while (auto event = stream->nextEvent())
        events.push_back(*event);
    ASSERT_EQ(events.size(), 64U);
    EXPECT_EQ(events.front().missed, moves - 64);
    EXPECT_EQ(events.front().kind, Kind::Moved);
    EXPECT_EQ(events.back().missed, 0U);
    EXPECT_EQ(events.back().endpoint.ip, inet_addr(kGroup));
    m_source.send();
    EXPECT_EQ(readNumbers(*stream, 1), upTo(1));
}

} // namespace
