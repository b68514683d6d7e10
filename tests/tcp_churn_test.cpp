#include "tcp_support.h"

#include <atomic>
#include <deque>
#include <map>
#include <random>

namespace {

using namespace tcp_test;

constexpr size_t kStayers = 100;
constexpr size_t kGoers = 100;
constexpr size_t kDrivers = 4;
constexpr auto kDuration = 4s;
constexpr auto kAtMost = 60s;             // on a busy machine, until enough has happened
constexpr size_t kBroadcast = 16384;      // enough to fill the connection of a goer that stalls
constexpr size_t kAhead = 4 * kBroadcast; // and what a stayer's connection holds, however slow the machine is

/// @p count bytes of the endless text that every stream here is a beginning of.
std::string text(size_t position, size_t count) {
    std::string result(count, '\0');
    for (char& byte : result)
        byte = static_cast<char>('a' + position++ % 23);
    return result;
}

/// The server's side: checks what all send, closes some that come after the stayers.
class Desk : public net::iTcpDataListener {
public:
    virtual ~Desk() = default;

    std::map<unsigned short, size_t> received() const { // by port
        std::lock_guard lock(m_mutex);
        return m_received;
    }
    std::atomic<size_t> ended = 0;
    std::atomic<size_t> mistakes = 0;

private:
    void OnTcpClientConnected(int fd, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        m_received[port] = 0;
        if (m_received.size() <= kStayers)
            m_lastStayer = std::max(m_lastStayer, fd);
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        ended += m_received.erase(port);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short port, const char* data, int len) override {
        const auto length = static_cast<size_t>(len);
        std::lock_guard lock(m_mutex);
        mistakes += std::string(data, length) != text(m_received[port], length);
        m_received[port] += length;
        if (fd > m_lastStayer && m_received[port] > 20000)
            server.closeClient(fd);
    }

    mutable std::mutex m_mutex; // guards the two below
    std::map<unsigned short, size_t> m_received;
    int m_lastStayer = 0;

public:
    net::TcpServer server{this}; // the first to end
};

/// A client that stays, talks, sometimes lets what it is sent wait, and checks it.
struct Stayer {
    void talk(size_t count) {
        EXPECT_TRUE(peer.send(text(sent, count)));
        sent += count;
    }
    size_t listen() {
        for (std::string bytes; !(bytes = peer.read(65536, MSG_DONTWAIT)).empty(); heard += bytes.size())
            mistakes += bytes != text(heard, bytes.size());
        return heard;
    }

    Peer peer;
    size_t sent = 0;
    std::atomic<size_t> heard = 0;
    size_t mistakes = 0;
};

/// A client that comes, talks or stalls, and goes with or without manners.
void actAsGoer(std::unique_ptr<Peer>& peer, unsigned short port, unsigned dice) {
    if (peer == nullptr) {
        peer = std::make_unique<Peer>(port, kLocal, 1);
    } else if (dice % 40 == 0) {
        dice % 80 == 0 ? peer->reset() : peer->close();
        peer.reset();
    } else if (dice % 4 == 0) {
        peer->send(text(0, 23 * (dice % 50))); // whole alphabets, so that each begins where the last ended
    }
}

TEST(TcpServerChurn, EveryByteOfEveryClientThatStaysArrivesWhateverTheOthersDo) {
    const Output output;
    Desk desk;
    const unsigned short port = freePort();
    ASSERT_TRUE(desk.server.connect(kLocal, port, -1));
    std::deque<Stayer> stayers;
    for (size_t i = 0; i < kStayers; ++i)
        stayers.emplace_back().peer = Peer(port);
    ASSERT_TRUE(comesTrue([&] { return desk.received().size() == kStayers; }));

    const auto start = Clock::now();
    std::atomic<bool> done = false;
    std::vector<std::thread> drivers;
    for (size_t driver = 0; driver < kDrivers; ++driver)
        drivers.emplace_back([&, driver] {
            std::minstd_rand dice(static_cast<unsigned>(driver) + 1);
            std::vector<std::unique_ptr<Peer>> goers(kGoers / kDrivers);
            while (!done) {
                for (size_t i = driver; i < stayers.size(); i += kDrivers) {
                    if (dice() % 4 == 0)
                        stayers[i].talk(dice() % 3000);
                    if (dice() % 3 == 0)
                        stayers[i].listen();
                }
                for (std::unique_ptr<Peer>& goer : goers)
                    actAsGoer(goer, port, static_cast<unsigned>(dice()));
            }
        });
    size_t broadcast = 0;
    const auto allKeepUp = [&] {
        return std::ranges::all_of(stayers,
                                   [&](const Stayer& stayer) { return stayer.heard + kAhead > broadcast; });
    };
    const std::string stalled = "tcpsocket.cpp,operator(),296,";
    const auto hasSeenAll = [&] {
        return desk.ended > 100 && output.err().find(stalled) != std::string::npos;
    };
    while (Clock::now() < start + kDuration || (!hasSeenAll() && Clock::now() < start + kAtMost)) {
        comesTrue(allKeepUp);
        desk.server.sendData(text(broadcast, kBroadcast).data(), kBroadcast);
        broadcast += kBroadcast;
    }
    done = true;
    for (std::thread& driver : drivers)
        driver.join();

    for (Stayer& stayer : stayers) {
        ASSERT_TRUE(comesTrue([&] { return stayer.listen() == broadcast; })) << stayer.heard;
        EXPECT_EQ(stayer.mistakes, 0U);
        EXPECT_TRUE(comesTrue([&] { return desk.received()[stayer.peer.port()] == stayer.sent; }));
    }
    EXPECT_EQ(desk.mistakes, 0U);
    EXPECT_TRUE(comesTrue([&] { // also those that had gone before they were accepted
        return desk.received().size() == kStayers && desk.server.numOfClients() == kStayers;
    })) << "the others have gone";
    EXPECT_GT(desk.ended, 100U) << "there was a coming and going";
    EXPECT_THAT(output.err(), HasSubstr(stalled)) << "somebody stalled";
}

} // namespace
