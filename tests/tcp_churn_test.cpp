#include "tcp_support.h"

#include <map>
#include <memory>
#include <random>

namespace {

using namespace tcp_test;

constexpr int kStayers = 100;
constexpr int kGoers = 100;
constexpr int kDrivers = 4;
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

/// The server's side: checks what stayers send, closes some goers.
class Desk : public net::iTcpDataListener {
public:
    virtual ~Desk() = default;

    void OnTcpClientConnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        m_clients[port] = {};
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short port) override {
        std::lock_guard lock(m_mutex);
        m_ended += m_clients.erase(port);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short port, const char* data, int len) override {
        std::string bytes(data, static_cast<size_t>(len));
        std::lock_guard lock(m_mutex);
        Client& client = m_clients[port];
        if (client.kind.empty()) {
            client.kind = bytes.substr(0, 1);
            bytes.erase(0, 1);
        }
        m_mistakes += bytes != text(client.received, bytes.size());
        client.received += bytes.size();
        if (client.kind == kGoer && client.received > 20000)
            server.closeClient(fd);
    }

    size_t received(unsigned short port) const {
        std::lock_guard lock(m_mutex);
        const auto found = m_clients.find(port);
        return found == m_clients.end() ? 0 : found->second.received;
    }
    size_t clients() const {
        std::lock_guard lock(m_mutex);
        return m_clients.size();
    }
    size_t ended() const {
        std::lock_guard lock(m_mutex);
        return m_ended;
    }
    size_t mistakes() const {
        std::lock_guard lock(m_mutex);
        return m_mistakes;
    }

private:
    struct Client {
        std::string kind;
        size_t received = 0;
    };
    mutable std::mutex m_mutex; // guards all below
    std::map<unsigned short, Client> m_clients;
    size_t m_ended = 0;
    size_t m_mistakes = 0;

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
    void listen() {
        char buffer[65536];
        ssize_t count;
        while ((count = ::recv(peer.fd(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
            const auto size = static_cast<size_t>(count);
            mistakes += std::string(buffer, size) != text(heard, size);
            heard += size;
        }
    }

    Peer peer;
    size_t sent = 0;
    size_t heard = 0;
    size_t mistakes = 0;
};

/// A client that comes, talks or stalls, and goes with or without manners.
void actAsGoer(std::unique_ptr<Peer>& peer, unsigned short port, unsigned dice) {
    if (peer == nullptr) {
        peer = std::make_unique<Peer>(port, "127.0.0.1", 1);
        peer->send(kGoer);
    } else if (dice % 40 == 0) {
        dice % 80 == 0 ? peer->reset() : peer->close();
        peer.reset();
    } else if (dice % 4 == 0) {
        peer->send(text(0, 23 * (dice % 50))); // whole alphabets, so that each begins where the last ended
    }
}

TEST(TcpServerChurn, EveryByteOfEveryClientThatStaysArrivesWhateverTheOthersDo) {
    Desk desk;
    const unsigned short port = freePort();
    Output output;
    ASSERT_TRUE(desk.server.connect("127.0.0.1", port, -1));

    std::vector<Stayer> stayers;
    for (int i = 0; i < kStayers; ++i)
        stayers.emplace_back(port);
    ASSERT_TRUE(eventually([&] { return desk.clients() == kStayers; }));

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
                std::this_thread::sleep_for(2ms);
            }
        });
    size_t broadcast = 0;
    while (Clock::now() < end) {
        const std::string bytes = text(broadcast, kBroadcast);
        desk.server.sendData(bytes.data(), kBroadcast);
        broadcast += kBroadcast;
    }
    for (std::thread& driver : drivers)
        driver.join();

    size_t sent = 0;
    for (Stayer& stayer : stayers) {
        EXPECT_TRUE(eventually([&] {
            stayer.listen();
            return stayer.heard == broadcast;
        })) << stayer.heard
            << " of " << broadcast;
        EXPECT_EQ(stayer.mistakes, 0U);
        EXPECT_TRUE(eventually([&] { return desk.received(stayer.peer.port()) == stayer.sent; }));
        sent += stayer.sent;
    }
    EXPECT_EQ(desk.mistakes(), 0U);
    EXPECT_TRUE(eventually([&] { // also those that had gone before they were accepted
        return desk.clients() == kStayers && desk.server.numOfClients() == kStayers;
    })) << "the others have gone";
    EXPECT_GT(desk.ended(), 100U) << "there was a coming and going";
    desk.server.disconnect();
    const std::string printed = output.out();
    EXPECT_THAT(output.err(), testing::HasSubstr("tcpsocket.cpp,operator(),296,")) << "somebody stalled";
    if (HasFailure()) // what failed above was captured with the server's own lines
        std::fwrite(printed.data(), 1, printed.size(), stdout);
    RecordProperty("stayers_sent", std::to_string(sent));
    RecordProperty("broadcast_each", std::to_string(broadcast));
    RecordProperty("goers", std::to_string(desk.ended()));
}

} // namespace
