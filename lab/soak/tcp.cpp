// TCP peers that die, freeze, vanish, or behave badly.

#include "stage.h"
#include "tcp_server_process.h"

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/tcpsocket.h>

#include <netinet/in.h>
#include <unistd.h>

#include <csignal>

namespace soak {

namespace {

using net::detail::Descriptor;

constexpr const char* kServerAddress = "10.20.1.2"; // host2
constexpr unsigned short kPort = 7100;
constexpr double kNoticesEnd = 1.5;    // an end that the system tells of
constexpr double kNoticesSilence = 17; // 15 s of it, looked at with each time-out and told within another
constexpr double kNoticesFull = 25;    // the system's questions for room come at growing intervals
constexpr double kConnectsAgain = 10;

/// Counts what a client or a server tells. Any thread.
class Notes : public net::iTcpDataListener {
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
class Connected {
public:
    explicit Connected(Stage& stage) {
        const lab::Inside inside = stage.display().enter();
        m_client = std::make_unique<net::TcpClient>(&m_notes, kServerAddress, kPort, 0U);
        m_client->connectOnce();
        secondsUntil([this] { return m_client->isConnected(); }, 30s, "the client connects");
    }
    ~Connected() { m_client.reset(); }

    net::TcpClient& client() { return *m_client; }
    const Notes& notes() const { return m_notes; }
    double secondsUntilLost() const {
        return secondsUntil([this] { return m_notes.disconnected > 0; }, 60s,
                            "the client says that it is lost");
    }
    double secondsUntilBack() const {
        return secondsUntil([this] { return m_notes.connected > 1; }, 120s, "the client connects again");
    }

private:
    Notes m_notes;
    std::unique_ptr<net::TcpClient> m_client;
};

lab::Process startServer(Stage& stage) {
    lab::Process server = stage.host().start({.command = serverCommand(kPort)});
    if (!server.lineWith("listening", 30s))
        throw Broken("the server does not listen: " + server.output());
    return server;
}

std::unique_ptr<net::TcpServer> serverHere(Stage& stage, Notes& notes) {
    const lab::Inside inside = stage.host().enter();
    auto server = std::make_unique<net::TcpServer>(&notes);
    if (!server->connect(kPort, 100))
        throw Broken("the server cannot listen");
    return server;
}

Figures killed(Stage& stage) {
    lab::Process server = startServer(stage);
    const Connected client(stage);
    server.signal(SIGKILL);
    const double lost = client.secondsUntilLost();
    server.wait(10s);
    const lab::Process again = startServer(stage);
    return {{"s until told lost", lost, kNoticesEnd},
            {"s until connected again", client.secondsUntilBack(), kConnectsAgain}};
}

Figures frozen(Stage& stage) {
    constexpr int kMessages = 100;
    constexpr int kLength = 100;
    lab::Process server = startServer(stage);
    Connected client(stage);
    server.signal(SIGSTOP);
    const std::string message(kLength, 'x');
    for (int i = 0; i < kMessages; ++i) {
        client.client().asyncSendData(message.data(), kLength);
        std::this_thread::sleep_for(20s / kMessages);
    }
    const int lost = client.notes().disconnected;
    long arrived = 0;
    const auto read = [&] {
        while (const auto line = server.nextLine(0ms))
            arrived = std::stol(line->substr(line->find(' ') + 1));
        return arrived;
    };
    if (read() != 0)
        throw Broken("the server was not frozen");
    server.signal(SIGCONT);
    const double seconds = secondsUntil([&] { return read() >= kMessages * kLength; }, 30s, "all arrives");
    return {{"connections given up", static_cast<double>(lost), 0},
            {"s until all that was sent has arrived", seconds, 2}};
}

Figures cutOff(Stage& stage, bool sending) {
    const lab::Process server = startServer(stage);
    Connected client(stage);
    std::jthread sender;
    if (sending)
        sender = std::jthread([&](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::sleep_for(100ms))
                client.client().sendData("tick", 4);
        });
    stage.lan().dropRate(stage.host(), 100);
    const double lost = client.secondsUntilLost();
    std::this_thread::sleep_for(stage.full() ? 60s : 5s);
    stage.lan().dropRate(stage.host(), 0);
    return {{"s until told lost", lost, kNoticesSilence},
            {"s until connected again", client.secondsUntilBack(), kConnectsAgain}};
}

/// A server that does not read any more, so that the client's sends wait, and then is gone.
Figures fullAndCutOff(Stage& stage) {
    lab::Process server = startServer(stage);
    Connected client(stage);
    server.signal(SIGSTOP);
    std::atomic<double> sendReturned = 0; // seconds since the start
    const auto start = Clock::now();
    const std::jthread sender([&] {
        const std::string data(1024 * 1024, 'x');
        while (client.client().sendData(data.data(), static_cast<unsigned int>(data.size())))
            sendReturned = secondsSince(start);
        sendReturned = secondsSince(start);
    });
    struct Release { // of the sender, whatever becomes of this
        Stage& stage;
        lab::Process& server;
        ~Release() {
            server.signal(SIGKILL);
            stage.lan().dropRate(stage.host(), 0);
        }
    };
    const Release release{stage, server};
    secondsUntil([&] { return secondsSince(start) > sendReturned + 3; }, 60s, "a send waits");
    stage.lan().dropRate(stage.host(), 100);
    const auto cut = Clock::now();
    const double lost = client.secondsUntilLost();
    secondsUntil([&] { return sendReturned > secondsSince(start) - 5; }, 10s, "the send gives up");
    const double gaveUp = sendReturned - std::chrono::duration<double>(cut - start).count();
    server.signal(SIGCONT);
    stage.lan().dropRate(stage.host(), 0);
    return {{"s until told lost", lost, kNoticesFull},
            {"s until the send gives up", gaveUp, kNoticesFull},
            {"s until connected again", client.secondsUntilBack(), kConnectsAgain}};
}

Figures clientCutOff(Stage& stage) {
    Notes notes;
    const auto server = serverHere(stage, notes);
    Connected client(stage);
    secondsUntil([&] { return notes.connected > 0; }, 10s, "the server has the client");
    stage.lan().dropRate(stage.display(), 100);
    const double lost =
        secondsUntil([&] { return notes.disconnected > 0; }, 60s, "the server says that the client is lost");
    stage.lan().dropRate(stage.display(), 0);
    return {{"s until the server tells", lost, kNoticesSilence}};
}

Figures destroyedWhileConnecting(Stage& stage) {
    // A neighbour that is known and not there: nothing refuses, nothing answers.
    lab::Process known =
        stage.display().start({.command = {"ip", "neighbour", "replace", "10.20.1.99", "lladdr",
                                           "02:00:00:00:00:99", "dev", "eth0", "nud", "permanent"}});
    if (known.wait(10s) != 0)
        throw Broken(known.output());
    Notes notes;
    const lab::Inside inside = stage.display().enter();
    auto client = std::make_unique<net::TcpClient>(&notes, "10.20.1.99", kPort, 0U);
    std::this_thread::sleep_for(7s); // the first attempt begins after 5.5
    const auto start = Clock::now();
    client.reset();
    return {{"s until destroyed", secondsSince(start), 1}};
}

Figures churn(Stage& stage) {
    constexpr int kTimes = 1000;
    const Resources before = resourcesOf(::getpid());
    const auto start = Clock::now();
    double seconds = 0;
    {
        Notes notes;
        const auto server = serverHere(stage, notes);
        const lab::Inside inside = stage.display().enter();
        Notes own;
        net::TcpClient client(&own, kServerAddress, kPort, 0U);
        for (int i = 0; i < kTimes; ++i)
            if (!client.connectOnce())
                throw Broken("connection " + std::to_string(i + 1) + " fails");
        seconds = secondsSince(start);
        secondsUntil([&] { return notes.connected == kTimes && notes.disconnected == kTimes - 1; }, 30s,
                     "the server has told of every client");
        if (own.connected != kTimes || own.disconnected != kTimes - 1)
            throw Broken("the client has not told of every connection");
    }
    const Resources after = resourcesOf(::getpid());
    return {{"descriptors left", static_cast<double>(after.descriptors - before.descriptors), 0},
            {"threads left", static_cast<double>(after.threads - before.threads), 0},
            {"s for all", seconds}};
}

Descriptor plainClient(Stage& stage) {
    const lab::Inside inside = stage.display().enter();
    Descriptor socket = net::detail::openSocket(SOCK_STREAM);
    const sockaddr_in server{AF_INET, net::HtoNs(kPort), {net::transAddr(kServerAddress)}, {}};
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0)
        throw Broken("a plain client cannot connect");
    return socket;
}

Figures unread(Stage& stage) {
    constexpr int kTimes = 40;
    Notes notes;
    const auto server = serverHere(stage, notes);
    const Descriptor silent = plainClient(stage);
    Connected reader(stage);
    secondsUntil([&] { return notes.connected == 2; }, 10s, "the server has both clients");
    const std::string data(1024 * 1024, 'x');
    double longest = 0;
    for (int i = 0; i < kTimes; ++i) {
        const auto start = Clock::now();
        server->sendData(data.data(), static_cast<unsigned int>(data.size()));
        longest = std::max(longest, secondsSince(start));
    }
    const long sent = kTimes * static_cast<long>(data.size());
    secondsUntil([&] { return reader.notes().bytes >= sent; }, 10s, "the other client has it all");
    return {{"s for the longest send to both", longest, 2}, // its time-out counts anew after each piece
            {"bytes missing at the other client", static_cast<double>(sent - reader.notes().bytes), 0}};
}

Figures slow(Stage& stage) {
    constexpr int kBytes = 10;
    Notes notes;
    const auto server = serverHere(stage, notes);
    const Descriptor client = plainClient(stage);
    for (int i = 0; i < kBytes; ++i) {
        if (::send(client.get(), "x", 1, MSG_NOSIGNAL) != 1)
            throw Broken("the connection has ended");
        std::this_thread::sleep_for(1s);
    }
    return {{"bytes missing", static_cast<double>(kBytes - notes.bytes), 0},
            {"connections given up", static_cast<double>(notes.disconnected), 0}};
}

constexpr Row kRows[] = {
    {"tcp-killed", "TCP server killed", "SIGKILL; started again",
     "the client says so within 1.5 s, and is connected again within 10 s", killed},
    {"tcp-frozen", "TCP server frozen", "SIGSTOP for 20 s, while the client sends",
     "nobody can tell it from one that has nothing to say: the connection is kept, and nothing is lost",
     frozen},
    {"tcp-cut", "TCP server's machine cut off, idle link",
     "all its packets dropped until noticed and 5 s more (60 s with --full)",
     "the client says so within 17 s, and is connected again within 10 s",
     [](Stage& stage) { return cutOff(stage, false); }},
    {"tcp-cut-sending", "The same while the client sends", "ten messages a second",
     "the client says so within 17 s, and is connected again within 10 s",
     [](Stage& stage) { return cutOff(stage, true); }},
    {"tcp-cut-full", "The same while sends wait for room",
     "the server frozen, a send waiting for 3 s, then all packets dropped",
     "the client says so, and the send gives up, within 25 s; connected again within 10 s", fullAndCutOff},
    {"tcp-client-cut", "TCP client's machine cut off", "all its packets dropped",
     "the server says so within 17 s", clientCutOff},
    {"tcp-silent", "Client destroyed while it connects", "to an address that neither refuses nor answers",
     "it ends within a second", destroyedWhileConnecting},
    {"tcp-churn", "1,000 connects and disconnects", "one client, one server",
     "each is told of on both sides; no descriptor or thread is left", churn},
    {"tcp-unread", "TCP client that reads nothing", "40 MiB sent to it and to one that reads",
     "a send takes two seconds at most, and the other client gets all", unread},
    {"tcp-slow", "TCP client that sends a byte a second", "for 10 s", "every byte arrives", slow},
};

} // namespace

std::span<const Row> tcpRows() {
    return kRows;
}

} // namespace soak
