#include "tcp_support.h"

#include <atomic>
#include <deque>
#include <map>
#include <random>

namespace {

using namespace tcp_test;

constexpr size_t kStableClients = 100;
constexpr size_t kChurnClients = 100;
constexpr size_t kDrivers = 4;
constexpr auto kDuration = 4s;
constexpr auto kMaxDuration = 60s;        // on a busy machine, until enough has happened
constexpr size_t kBroadcast = 16384;      // fills the connection of a churn client that stalls
constexpr size_t kAhead = 4 * kBroadcast; // what a stable client's connection holds on a slow machine, too

/// @p count bytes from @p position of the endless text that every stream here begins with.
std::string text(size_t position, size_t count) {
    std::string result(count, '\0');
    for (char& byte : result)
        byte = static_cast<char>('a' + position++ % 23);
    return result;
}

/// Checks what all clients send, and closes some that connect after the stable clients.
class Server : public net::iTcpDataListener {
public:
    virtual ~Server() = default;

    std::map<unsigned short, size_t> received() const { // by port
        std::lock_guard lock(m_mutex);
        return m_received;
    }
    std::atomic<size_t> ended = 0;
    std::atomic<size_t> mismatches = 0;

private:
    void OnTcpClientConnected(int fd, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        m_received[port] = 0;
        if (m_received.size() <= kStableClients)
            m_lastStableFd = std::max(m_lastStableFd, fd);
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        ended += m_received.erase(port);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short port, const char* data, int len) override {
        const auto length = static_cast<size_t>(len);
        std::lock_guard lock(m_mutex);
        mismatches += std::string(data, length) != text(m_received[port], length);
        m_received[port] += length;
        if (fd > m_lastStableFd && m_received[port] > 20000)
            tcp.closeClient(fd);
    }

    mutable std::mutex m_mutex; // guards the two below
    std::map<unsigned short, size_t> m_received;
    int m_lastStableFd = 0;

public:
    net::TcpServer tcp{this}; // last: it ends before what its callbacks use
};

/// A client that stays connected, sends, reads now and then, and checks what it reads.
struct StableClient {
    void send(size_t count) {
        EXPECT_TRUE(peer.send(text(sent, count)));
        sent += count;
    }
    size_t receive() {
        for (std::string bytes; !(bytes = peer.read(65536, MSG_DONTWAIT)).empty(); received += bytes.size())
            mismatches += bytes != text(received, bytes.size());
        return received;
    }

    Peer peer;
    size_t sent = 0;
    std::atomic<size_t> received = 0;
    size_t mismatches = 0;
};

/// A client that connects, sends or stalls, and ends with FIN or RST.
class ChurnClient {
public:
    void act(unsigned short port, unsigned random) {
        if (m_peer == nullptr) {
            m_peer = std::make_unique<Peer>(port, kLocal, 1);
        } else if (random % 40 == 0) {
            random % 80 == 0 ? m_peer->reset() : m_peer->close();
            m_peer.reset();
        } else if (random % 4 == 0) {
            m_peer->send(text(0, 23 * (random % 50))); // whole alphabets: each continues the one before
        }
    }

private:
    std::unique_ptr<Peer> m_peer;
};

TEST(TcpServerChurn, StableClientsLoseNoByteWhileOthersComeAndGo) {
    const Output output;
    Server server;
    const unsigned short port = freePort();
    ASSERT_TRUE(server.tcp.connect(kLocal, port, -1));
    std::deque<StableClient> stableClients;
    for (size_t i = 0; i < kStableClients; ++i)
        stableClients.emplace_back().peer = Peer(port);
    ASSERT_TRUE(comesTrue([&] { return server.received().size() == kStableClients; }));

    const auto start = Clock::now();
    std::atomic<bool> done = false;
    std::vector<std::thread> drivers;
    for (size_t driver = 0; driver < kDrivers; ++driver)
        drivers.emplace_back([&, driver] {
            std::minstd_rand random(static_cast<unsigned>(driver) + 1);
            std::vector<ChurnClient> churnClients(kChurnClients / kDrivers);
            while (!done) {
                for (size_t i = driver; i < stableClients.size(); i += kDrivers) {
                    if (random() % 4 == 0)
                        stableClients[i].send(random() % 3000);
                    if (random() % 3 == 0)
                        stableClients[i].receive();
                }
                for (ChurnClient& client : churnClients)
                    client.act(port, static_cast<unsigned>(random()));
            }
        });
    size_t broadcast = 0;
    const auto allKeepUp = [&] {
        return std::ranges::all_of(
            stableClients, [&](const StableClient& client) { return client.received + kAhead > broadcast; });
    };
    const std::string stalled = "tcpsocket.cpp,operator(),296,";
    const auto hasSeenAll = [&] {
        return server.ended > 100 && output.err().find(stalled) != std::string::npos;
    };
    while (Clock::now() < start + kDuration || (!hasSeenAll() && Clock::now() < start + kMaxDuration)) {
        comesTrue(allKeepUp);
        server.tcp.sendData(text(broadcast, kBroadcast).data(), kBroadcast);
        broadcast += kBroadcast;
    }
    done = true;
    for (std::thread& driver : drivers)
        driver.join();

    for (StableClient& client : stableClients) {
        ASSERT_TRUE(comesTrue([&] { return client.receive() == broadcast; })) << client.received;
        EXPECT_EQ(client.mismatches, 0U);
        EXPECT_TRUE(comesTrue([&] { return server.received()[client.peer.port()] == client.sent; }));
    }
    EXPECT_EQ(server.mismatches, 0U);
    EXPECT_TRUE(comesTrue([&] { // also those that had closed before they were accepted
        return server.received().size() == kStableClients && server.tcp.numOfClients() == kStableClients;
    })) << "the churn clients have left";
    EXPECT_GT(server.ended, 100U) << "clients came and went";
    EXPECT_THAT(output.err(), HasSubstr(stalled)) << "a client stalled";
}

} // namespace
