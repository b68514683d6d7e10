// TCP peers that are killed, freeze, are cut off, or do not read.

#include "tcp_server_process.h"
#include "testbed.h"

#include <lab/failing_memory.h>

#include <UdpSocket/base/socket.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>
#include <unistd.h>

#include <csignal>

namespace soak {

namespace {

using net::detail::Descriptor;

constexpr const char* kServerAddress = "10.20.1.2"; // host2
constexpr unsigned short kPort = 7100;
constexpr double kCloseLimit = 1.5;  // s: FIN or RST arrives
constexpr double kSilenceLimit = 17; // s: 15 of silence, checked at each time-out and reported within another
constexpr double kFullBufferLimit = 25; // s: the system's zero-window probes come at growing intervals
constexpr double kReconnectLimit = 10;

/// Counts what a client or a server reports. Any thread.
class ConnectionCounter : public net::iTcpDataListener {
public:
    std::atomic<int> connected = 0;
    std::atomic<int> disconnected = 0;
    std::atomic<long> bytes = 0;

private:
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int length) override {
        bytes += length;
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override { ++connected; }
    void OnTcpClientDisconnected(int, const char*, unsigned short) override { ++disconnected; }
};

/// The client on the display, connected.
class ConnectedClient {
public:
    explicit ConnectedClient(Testbed& testbed) {
        const lab::Inside inside = testbed.display().enter();
        m_client = std::make_unique<net::TcpClient>(&m_counter, kServerAddress, kPort, 0U);
        m_client->connectOnce();
        secondsUntil([this] { return m_client->isConnected(); }, 30s, "the client connects");
    }
    ~ConnectedClient() { m_client.reset(); }

    net::TcpClient& client() { return *m_client; }
    const ConnectionCounter& counter() const { return m_counter; }
    double secondsUntilLost() const {
        return secondsUntil([this] { return m_counter.disconnected > 0; }, 60s,
                            "the client reports the loss");
    }
    double secondsUntilReconnected() const {
        return secondsUntil([this] { return m_counter.connected > 1; }, 120s, "the client connects again");
    }

private:
    ConnectionCounter m_counter;
    std::unique_ptr<net::TcpClient> m_client;
};

lab::Process startServer(Testbed& testbed) {
    lab::Process server = testbed.host().start({.command = serverCommand(kPort)});
    if (!server.lineWith("listening", 30s))
        throw RequirementFailed("the server does not listen: " + server.output());
    return server;
}

std::unique_ptr<net::TcpServer> makeServer(Testbed& testbed, ConnectionCounter& counter) {
    const lab::Inside inside = testbed.host().enter();
    auto server = std::make_unique<net::TcpServer>(&counter);
    if (!server->connect(kPort, 100))
        throw RequirementFailed("the server cannot listen");
    return server;
}

Figures killed(Testbed& testbed) {
    lab::Process server = startServer(testbed);
    const ConnectedClient client(testbed);
    server.signal(SIGKILL);
    const double lost = client.secondsUntilLost();
    server.wait(10s);
    const lab::Process again = startServer(testbed);
    return {{"s until the loss is reported", lost, kCloseLimit},
            {"s until connected again", client.secondsUntilReconnected(), kReconnectLimit}};
}

Figures frozen(Testbed& testbed) {
    constexpr int kMessages = 100;
    constexpr int kLength = 100;
    lab::Process server = startServer(testbed);
    ConnectedClient client(testbed);
    server.signal(SIGSTOP);
    std::this_thread::sleep_for(100ms); // until it stands
    const std::string message(kLength, 'x');
    for (int i = 0; i < kMessages; ++i) {
        client.client().asyncSendData(message.data(), kLength);
        std::this_thread::sleep_for(20'000ms / kMessages);
    }
    const int lost = client.counter().disconnected;
    long arrived = 0;
    const auto read = [&] {
        while (const auto line = server.nextLine(0ms))
            arrived = std::stol(line->substr(line->find(' ') + 1));
        return arrived;
    };
    if (read() != 0)
        throw RequirementFailed("the server was not frozen");
    server.signal(SIGCONT);
    const double seconds = secondsUntil([&] { return read() >= kMessages * kLength; }, 30s, "all arrives");
    return {{"connections given up", static_cast<double>(lost), 0},
            {"s until all that was sent has arrived", seconds, 2}};
}

Figures cutOff(Testbed& testbed, bool sending) {
    const lab::Process server = startServer(testbed);
    ConnectedClient client(testbed);
    std::jthread sender;
    if (sending)
        sender = std::jthread([&](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::sleep_for(100ms))
                client.client().sendData("tick", 4);
        });
    testbed.lan().dropRate(testbed.host(), 100);
    const double lost = client.secondsUntilLost();
    std::this_thread::sleep_for(testbed.full() ? 60s : 5s);
    testbed.lan().dropRate(testbed.host(), 0);
    return {{"s until the loss is reported", lost, kSilenceLimit},
            {"s until connected again", client.secondsUntilReconnected(), kReconnectLimit}};
}

/// A server that stops reading, so that the client's sends wait, and then is cut off.
Figures fullAndCutOff(Testbed& testbed) {
    lab::Process server = startServer(testbed);
    ConnectedClient client(testbed);
    server.signal(SIGSTOP);
    std::atomic<double> sendReturned = 0; // seconds since the start
    const auto start = Clock::now();
    const std::jthread sender([&] {
        const std::string data(1024 * 1024, 'x');
        while (client.client().sendData(data.data(), static_cast<unsigned int>(data.size())))
            sendReturned = secondsSince(start);
        sendReturned = secondsSince(start);
    });
    struct Release { // of the sender, also when a requirement fails
        Testbed& testbed;
        lab::Process& server;
        ~Release() {
            server.signal(SIGKILL);
            testbed.lan().dropRate(testbed.host(), 0);
        }
    };
    const Release release{testbed, server};
    secondsUntil([&] { return secondsSince(start) > sendReturned + 3; }, 60s, "a send waits");
    testbed.lan().dropRate(testbed.host(), 100);
    const auto cut = Clock::now();
    const double lost = client.secondsUntilLost();
    secondsUntil([&] { return sendReturned > secondsSince(start) - 5; }, 10s, "the send gives up");
    const double gaveUp = sendReturned - std::chrono::duration<double>(cut - start).count();
    server.signal(SIGCONT);
    testbed.lan().dropRate(testbed.host(), 0);
    return {{"s until the loss is reported", lost, kFullBufferLimit},
            {"s until the send gives up", gaveUp, kFullBufferLimit},
            {"s until connected again", client.secondsUntilReconnected(), kReconnectLimit}};
}

Figures clientCutOff(Testbed& testbed) {
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    ConnectedClient client(testbed);
    secondsUntil([&] { return counter.connected > 0; }, 10s, "the server has the client");
    testbed.lan().dropRate(testbed.display(), 100);
    const double lost = secondsUntil([&] { return counter.disconnected > 0; }, 60s,
                                     "the server reports the loss of the client");
    testbed.lan().dropRate(testbed.display(), 0);
    return {{"s until the server reports the loss", lost, kSilenceLimit}};
}

Figures destroyedWhileConnecting(Testbed& testbed) {
    // The neighbour table has an entry for an absent computer, so that an attempt gets no answer and no
    // error.
    lab::Process known =
        testbed.display().start({.command = {"ip", "neighbour", "replace", "10.20.1.99", "lladdr",
                                             "02:00:00:00:00:99", "dev", "eth0", "nud", "permanent"}});
    if (known.wait(10s) != 0)
        throw RequirementFailed(known.output());
    ConnectionCounter counter;
    const lab::Inside inside = testbed.display().enter();
    auto client = std::make_unique<net::TcpClient>(&counter, "10.20.1.99", kPort, 0U);
    std::this_thread::sleep_for(7s); // the first attempt begins after 5.5
    const auto start = Clock::now();
    client.reset();
    return {{"s until destroyed", secondsSince(start), 1}};
}

Figures churn(Testbed& testbed) {
    constexpr int kTimes = 1000;
    const Resources before = resourcesOf(::getpid());
    const auto start = Clock::now();
    double seconds = 0;
    {
        ConnectionCounter counter;
        const auto server = makeServer(testbed, counter);
        const lab::Inside inside = testbed.display().enter();
        ConnectionCounter own;
        net::TcpClient client(&own, kServerAddress, kPort, 0U);
        for (int i = 0; i < kTimes; ++i)
            if (!client.connectOnce())
                throw RequirementFailed("connection " + std::to_string(i + 1) + " fails");
        seconds = secondsSince(start);
        secondsUntil([&] { return counter.connected == kTimes && counter.disconnected == kTimes - 1; }, 30s,
                     "the server has reported every client");
        if (own.connected != kTimes || own.disconnected != kTimes - 1)
            throw RequirementFailed("the client has not reported every connection");
    }
    const Resources after = resourcesOf(::getpid());
    return {{"descriptors left", static_cast<double>(after.descriptors - before.descriptors), 0},
            {"threads left", static_cast<double>(after.threads - before.threads), 0},
            {"s for all", seconds}};
}

Descriptor plainClient(Testbed& testbed) {
    const lab::Inside inside = testbed.display().enter();
    Descriptor socket = net::detail::openSocket(SOCK_STREAM);
    const sockaddr_in server = net::detail::makeAddress(net::transAddr(kServerAddress), kPort);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0)
        throw RequirementFailed("a plain client cannot connect");
    return socket;
}

/// What is missing of a message when its reader has the end of the stream or of its patience.
long missing(const Descriptor& reader, long length) {
    net::detail::setOption(reader, SOL_SOCKET, SO_RCVTIMEO, timeval{5, 0});
    std::vector<char> piece(64 * 1024);
    for (ssize_t count; length > 0 && (count = ::recv(reader.get(), piece.data(), piece.size(), 0)) > 0;)
        length -= count;
    return length;
}

Figures unread(Testbed& testbed) {
    constexpr int kTimes = 40;
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const Descriptor silent = plainClient(testbed);
    ConnectedClient reader(testbed);
    secondsUntil([&] { return counter.connected == 2; }, 10s, "the server has both clients");
    const std::string data(1024 * 1024, 'x');
    const auto length = static_cast<long>(data.size());
    const long all = kTimes * length;
    double longest = 0;
    const auto secondsForAll = [&] {
        const long before = reader.counter().bytes;
        const auto begin = Clock::now();
        for (int i = 0; i < kTimes; ++i) {
            const auto start = Clock::now();
            server->sendData(data.data(), static_cast<unsigned int>(data.size()));
            longest = std::max(longest, secondsSince(start));
        }
        secondsUntil([&] { return reader.counter().bytes >= before + all; }, 60s,
                     "the other client has it all");
        return secondsSince(begin);
    };
    const double first = secondsForAll(); // until the silent one is set aside
    const double second = secondsForAll();
    const long taken = 2 * all - missing(silent, 2 * all);
    return {{"s for the longest send to both", longest, 1},
            {"bytes missing at the other client", static_cast<double>(2 * all - reader.counter().bytes), 0},
            {"s until it has all", first, 3},
            {"s for as much again", second, 2},
            {"MiB at the silent one in the end", static_cast<double>(taken) / static_cast<double>(length)},
            {"bytes of one cut short", static_cast<double>(taken % length), 0}};
}

Figures slow(Testbed& testbed) {
    constexpr int kBytes = 10;
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const Descriptor client = plainClient(testbed);
    for (int i = 0; i < kBytes; ++i) {
        if (::send(client.get(), "x", 1, MSG_NOSIGNAL) != 1)
            throw RequirementFailed("the connection has ended");
        std::this_thread::sleep_for(1s);
    }
    return {{"bytes missing", static_cast<double>(kBytes - counter.bytes), 0},
            {"connections given up", static_cast<double>(counter.disconnected), 0}};
}

/// How long a server's messages to all take, with one client that reads nothing and without.
Figures starved(Testbed& testbed) {
    constexpr int kMessages = 6000;
    constexpr double kPatience = 30; // s
    const std::string message(16 * 1024, 'x');
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const ConnectedClient reader(testbed);
    secondsUntil([&] { return counter.connected == 1; }, 10s, "the server has the client");
    const auto secondsForAll = [&] {
        const long before = reader.counter().bytes;
        const auto start = Clock::now();
        for (int i = 0; i < kMessages && secondsSince(start) < kPatience; ++i)
            server->sendData(message.data(), static_cast<unsigned int>(message.size()));
        const long all = before + kMessages * static_cast<long>(message.size());
        secondsUntil([&] { return reader.counter().bytes >= all; }, 30s, "the other client has it all");
        return secondsSince(start);
    };
    const double alone = secondsForAll();
    const Descriptor silent = plainClient(testbed);
    secondsUntil([&] { return counter.connected == 2; }, 10s, "the server has both clients");
    const double beside = secondsForAll();
    return {{"messages a second to one that reads", kMessages / alone},
            {"beside one that does not", kMessages / beside},
            {"s lost by that", std::max(0.0, beside - alone), 2}};
}

/// The first letter of each frame that is not whole counts as one.
long tornFrames(const std::string& stream, std::size_t frame) {
    long torn = 0;
    for (std::size_t at = 0; at < stream.size(); at += frame)
        torn += stream.compare(at, frame, std::string(frame, stream[at])) != 0;
    return torn;
}

Figures shared(Testbed& testbed) {
    constexpr std::size_t kFrame = 64 * 1024;
    constexpr int kFrames = 300; // of each of two threads
    constexpr std::size_t kAll = 2 * kFrames * kFrame;
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const Descriptor client = plainClient(testbed);
    secondsUntil([&] { return counter.connected == 1; }, 10s, "the server has the client");
    std::string stream;
    const auto start = Clock::now();
    {
        std::vector<std::jthread> senders;
        for (const char letter : {'a', 'b'})
            senders.emplace_back([&server, frame = std::string(kFrame, letter)] {
                for (int i = 0; i < kFrames; ++i)
                    server->sendData(frame.data(), kFrame);
            });
        char piece[16 * 1024];
        net::detail::setOption(client, SOL_SOCKET, SO_RCVTIMEO, timeval{5, 0});
        for (ssize_t count;
             stream.size() < kAll && (count = ::recv(client.get(), piece, sizeof piece, 0)) > 0;
             std::this_thread::sleep_for(1ms))
            stream.append(piece, static_cast<std::size_t>(count));
    }
    return {{"frames torn", static_cast<double>(tornFrames(stream, kFrame)), 0},
            {"bytes missing", static_cast<double>(kAll - stream.size()), 0},
            {"MB/s", static_cast<double>(stream.size()) / 1e6 / secondsSince(start)}};
}

Figures halfClosed(Testbed& testbed) {
    const std::string data(32 * 1024 * 1024, 'x');
    const auto length = static_cast<unsigned int>(data.size());

    Descriptor listening;
    {
        const lab::Inside inside = testbed.host().enter();
        listening = net::detail::openSocket(SOCK_STREAM);
        net::detail::setOption(listening, SOL_SOCKET, SO_REUSEADDR, 1);
        if (!net::detail::bindTo(listening, net::detail::makeAddress(INADDR_ANY, kPort)) ||
            ::listen(listening.get(), 1) != 0)
            throw RequirementFailed("a plain server cannot listen");
    }
    long fromClient = 0;
    bool clientSays = false;
    {
        ConnectedClient client(testbed);
        const Descriptor peer(::accept(listening.get(), nullptr, nullptr));
        const std::jthread sender([&] { clientSays = client.client().sendData(data.data(), length); });
        std::this_thread::sleep_for(100ms); // it waits for room
        ::shutdown(peer.get(), SHUT_WR);
        client.secondsUntilLost();
        fromClient = missing(peer, length);
    }
    listening.reset();

    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const Descriptor peer = plainClient(testbed);
    secondsUntil([&] { return counter.connected == 1; }, 10s, "the server has the client");
    const std::jthread sender([&] { server->sendData(data.data(), length); });
    std::this_thread::sleep_for(100ms);
    ::shutdown(peer.get(), SHUT_WR);
    secondsUntil([&] { return counter.disconnected == 1; }, 10s, "the server says that the client has gone");
    std::this_thread::sleep_for(1s); // beyond the time that a send waits
    const long fromServer = missing(peer, length);
    char none;
    const bool ends = ::recv(peer.get(), &none, 1, 0) == 0;
    return {{"bytes missing of a client's send", static_cast<double>(fromClient), 0},
            {"bytes missing of a server's", static_cast<double>(fromServer), 0},
            {"sends that said otherwise", (fromClient == 0) == clientSays ? 0.0 : 1.0, 0},
            {"connections left open", ends ? 0.0 : 1.0, 0}};
}

/// Every allocation of the threads of a server and a client fails in turn, while one connects to the other.
Figures withoutMemory(Testbed& testbed) {
    ConnectionCounter counter;
    const auto server = makeServer(testbed, counter);
    const lab::Inside inside = testbed.display().enter();
    int failed = 0;
    for (bool hit = true; hit; failed += hit) {
        ConnectionCounter own;
        net::TcpClient client(&own, kServerAddress, kPort, 0U);
        const FailingMemory memory(failed + 1);
        client.connectOnce();
        client.asyncSendData("tick", 4);
        std::this_thread::sleep_for(200ms); // on a busy machine, too, all of them have run
        hit = memory.hit();
    }
    secondsUntil([&] { return server->numOfClients() == 0; }, 10s, "the server has told of every client");
    const long before = counter.bytes;
    ConnectedClient client(testbed);
    client.client().sendData("tick", 4);
    return {{"allocations refused", static_cast<double>(failed)},
            {"s until it works afterwards",
             secondsUntil([&] { return counter.bytes == before + 4; }, 10s, "bytes arrive"), 1}};
}

constexpr Fault kFaults[] = {
    {"tcp-killed", "TCP server killed", "SIGKILL; started again",
     "the client reports it within 1.5 s, and is connected again within 10 s", killed},
    {"tcp-frozen", "TCP server frozen", "SIGSTOP for 20 s, while the client sends",
     "it cannot be told from one that has nothing to send: the connection is kept, and nothing is lost",
     frozen},
    {"tcp-cut", "TCP server's machine cut off, idle link",
     "all its packets dropped until noticed and 5 s more (60 s with --full)",
     "the client reports it within 17 s, and is connected again within 10 s",
     [](Testbed& testbed) { return cutOff(testbed, false); }},
    {"tcp-cut-sending", "The same while the client sends", "ten messages a second",
     "the client reports it within 17 s, and is connected again within 10 s",
     [](Testbed& testbed) { return cutOff(testbed, true); }},
    {"tcp-cut-full", "The same while sends wait for room",
     "the server frozen, a send waiting for 3 s, then all packets dropped",
     "the client reports it, and the send gives up, within 25 s; connected again within 10 s", fullAndCutOff},
    {"tcp-client-cut", "TCP client's machine cut off", "all its packets dropped",
     "the server reports it within 17 s", clientCutOff},
    {"tcp-silent", "Client destroyed while it connects", "to an address that neither refuses nor answers",
     "it ends within a second", destroyedWhileConnecting},
    {"tcp-churn", "1,000 connects and disconnects", "one client, one server",
     "each is reported on both sides; no descriptor or thread is left", churn, Load::Heavy},
    {"tcp-unread", "TCP client that reads nothing", "40 MiB sent to it and to one that reads, twice",
     "a send takes a second at most; the other client gets all within 3 s, and as much again within 2 s; "
     "when it reads in the end, no message is cut short",
     unread, Load::Heavy},
    {"tcp-starved", "TCP client that reads nothing, beside one that reads", "6,000 messages of 16 KiB to all",
     "the other gets them at full rate, but for half a second that is waited once or twice", starved,
     Load::Heavy},
    {"tcp-shared", "Two threads send to a slow TCP client",
     "300 frames of 64 KiB each, it reads 16 MB/s at most", "no frame is torn, none missing", shared,
     Load::Heavy},
    {"tcp-half-closed", "TCP peer that ends its own direction, and reads on",
     "in the middle of 32 MiB, both ways", "all arrives, the send says so, and then the connection ends",
     halfClosed, Load::Heavy},
    {"tcp-memory", "Memory runs out on the TCP threads",
     "every allocation fails in turn, while a client connects and sends",
     "the process lives, and works again at once", withoutMemory, Load::Heavy},
    {"tcp-slow", "TCP client that sends a byte a second", "for 10 s", "every byte arrives", slow},
};

} // namespace

std::span<const Fault> tcpFaults() {
    return kFaults;
}

} // namespace soak
