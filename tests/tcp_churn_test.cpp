#include "tcp_support.h"

#include <atomic>
#include <map>
#include <random>

namespace {

using namespace tcp_test;

constexpr size_t kStayers = 100;
constexpr size_t kGoers = 100;
constexpr size_t kDrivers = 4;
constexpr auto kDuration = 4s;
constexpr size_t kBroadcast = 16384; // enough to fill the connection of a goer that stalls
constexpr const char* kStayer = "S"; // a client's first byte tells its kind
constexpr const char* kGoer = "G";

/// @p count bytes of the endless text that every stream here is a beginning of.
std::string text(size_t position, size_t count) {
    std::string result(count, '\0');
    for (char& byte : result)
        byte = static_cast<char>('a' + position++ % 23);
    return result;
}

/// The server's side: checks what all send, closes some goers.
class Desk : public net::iTcpDataListener {
public:
    virtual ~Desk() = default;

    std::map<unsigned short, size_t> received() const { // by port
        std::lock_guard lock(m_mutex);
        std::map<unsigned short, size_t> all;
        for (const auto& [port, client] : m_clients)
            all[port] = client.received;
        return all;
    }
    std::atomic<size_t> ended = 0;
    std::atomic<size_t> mistakes = 0;

private:
    void OnTcpClientConnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        m_clients[port] = {};
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        ended += m_clients.erase(port);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short port, const char* data, int len) override {
        std::string bytes(data, static_cast<size_t>(len));
        std::lock_guard lock(m_mutex);
        Client& client = m_clients[port];
        if (client.kind.empty()) {
            client.kind = bytes.substr(0, 1);
            bytes.erase(0, 1);
        }
        mistakes += bytes != text(client.received, bytes.size());
        client.received += bytes.size();
        if (client.kind == kGoer && client.received > 20000)
            server.closeClient(fd);
    }

    struct Client {
        std::string kind;
        size_t received = 0;
    };
    mutable std::mutex m_mutex; // guards m_clients
    std::map<unsigned short, Client> m_clients;

public:
    net::TcpServer server{this}; // the first to end
};

/// A client that stays, talks, sometimes lets what it is sent wait, and checks it.
struct Stayer {
    explicit Stayer(unsigned short port) : peer(port) { EXPECT_TRUE(peer.send(kStayer)); }

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
    size_t heard = 0;
    size_t mistakes = 0;
};

/// A client that comes, talks or stalls, and goes with or without manners.
void actAsGoer(std::unique_ptr<Peer>& peer, unsigned short port, unsigned dice) {
    if (peer == nullptr) {
        peer = std::make_unique<Peer>(port, kLocal, 1);
        peer->send(kGoer);
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
    std::vector<Stayer> stayers;
    for (size_t i = 0; i < kStayers; ++i)
        stayers.emplace_back(port);
    ASSERT_TRUE(comesTrue([&] { return desk.received().size() == kStayers; }));

    const auto end = Clock::now() + kDuration;
    std::vector<std::thread> drivers;
    for (size_t driver = 0; driver < kDrivers; ++driver)
        drivers.emplace_back([&, driver] {
            std::minstd_rand dice(static_cast<unsigned>(driver) + 1);
            std::vector<std::unique_ptr<Peer>> goers(kGoers / kDrivers);
            while (Clock::now() < end) {
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
    for (; Clock::now() < end; broadcast += kBroadcast)
        desk.server.sendData(text(broadcast, kBroadcast).data(), kBroadcast);
    for (std::thread& driver : drivers)
        driver.join();

    for (Stayer& stayer : stayers) {
        EXPECT_TRUE(comesTrue([&] { return stayer.listen() == broadcast; })) << stayer.heard;
        EXPECT_EQ(stayer.mistakes, 0U);
        EXPECT_TRUE(comesTrue([&] { return desk.received()[stayer.peer.port()] == stayer.sent; }));
    }
    EXPECT_EQ(desk.mistakes, 0U);
    EXPECT_TRUE(comesTrue([&] { // also those that had gone before they were accepted
        return desk.received().size() == kStayers && desk.server.numOfClients() == kStayers;
    })) << "the others have gone";
    EXPECT_GT(desk.ended, 100U) << "there was a coming and going";
    EXPECT_THAT(output.err(), HasSubstr("tcpsocket.cpp,operator(),296,")) << "somebody stalled";
}

} // namespace
