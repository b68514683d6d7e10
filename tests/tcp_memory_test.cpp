// Allocations of a server whose clients do not take what is sent at once, refused in turn: each costs what
// was at hand.
#include "failing_memory.h"
#include "tcp_support.h"

#include <UdpSocket/base/timing.h>

namespace {

using namespace tcp_test;

constexpr const char* kLost = " was lost: out of memory\n";

/// Counts, and then needs memory in every callback, as listeners do.
class Counting : public net::iTcpDataListener {
public:
    virtual ~Counting() = default;
    std::atomic<int> connected = 0;
    std::atomic<int> disconnected = 0;
    std::atomic<int> pieces = 0;
    std::atomic<int> lastFd = -1;

private:
    static void takeMemory() { std::vector<char>(1000).swap(s_taken); }
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int) override {
        ++pieces;
        takeMemory();
    }
    void OnTcpClientConnected(int fd, const char*, unsigned short) override {
        lastFd = fd;
        ++connected;
        takeMemory();
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {
        ++disconnected;
        takeMemory();
    }
    static inline thread_local std::vector<char> s_taken;
};

/// Has @p scene played with the first allocation failing, then the second, until there are no more.
/// @return how many have failed
template <class Scene>
int failEachInTurn(FailingMemory::Threads threads, Scene scene) {
    int failed = 0;
    for (;; ++failed) {
        SCOPED_TRACE("allocation " + std::to_string(failed + 1));
        FailingMemory memory(failed + 1, threads);
        scene();
        if (!memory.hit() || testing::Test::HasFailure())
            return failed;
    }
}

TEST(TcpMemory, AServerServesOnWhicheverAllocationFailed) {
    const Output output;
    Counting counting;
    net::TcpServer server(&counting);
    const unsigned short port = freePort();
    ASSERT_TRUE(server.connect(kLocal, port, -1));
    const std::string much(16 << 20, 'a'); // more than a connection holds
    const auto visit = [&](bool leave) {
        const int before = counting.connected;
        Peer peer(port);
        peer.send("hello");
        if (comesTrue([&] { return counting.connected > before; }, 100ms)) {
            server.sendData(much.data(), 16 << 20); // on a thread, which keeps the rest
            server.sendData(counting.lastFd, "x", 1);
        }
        if (!leave)
            return counting.connected > before;
        peer.close();
        return comesTrue([&] { return server.numOfClients() == 0; });
    };
    EXPECT_GE(failEachInTurn(FailingMemory::Threads::kOthers, [&] { EXPECT_TRUE(visit(true)); }), 5);
    EXPECT_THAT(output.err(), HasSubstr(kLost));
    EXPECT_TRUE(visit(true)) << "afterwards as before";
    EXPECT_TRUE(comesTrue([&] { return counting.connected == counting.disconnected; }));
}

TEST(TcpMemory, ASendThatFindsNoMemoryIsWholeOrNotAtAll) {
    constexpr size_t kMessage = 8 << 20; // more than the connection holds
    Notes notes;
    net::TcpServer server(&notes);
    const unsigned short port = freePort();
    ASSERT_TRUE(server.connect(kLocal, port, -1));
    Peer peer(port);
    ASSERT_TRUE(notes.connected.reaches(1));
    const std::string message(kMessage, 'm');
    const int fd = std::stoi(notes.connected.all().front());
    size_t sent = 0;
    std::atomic<size_t> received = 0;
    std::jthread reading([&] {
        const SoundMemory ours;
        for (std::string bytes; !(bytes = peer.read(65536, 0)).empty();)
            received += bytes.size();
    });
    const auto attempt = [&](auto send) {
        try {
            send();
            ++sent;
        } catch (const std::bad_alloc&) {
        }
        EXPECT_TRUE(comesTrue([&] { return received == sent * kMessage; })) << received << " of " << sent;
    };
    const int length = static_cast<int>(kMessage);
    failEachInTurn(FailingMemory::Threads::kOwn, [&] {
        attempt([&] { server.sendData(message.data(), kMessage); });
        attempt([&] { server.sendMultipleDatas({{message.data(), 1}, {message.data(), length - 1}}); });
        attempt([&] { server.sendData(fd, message.data(), kMessage); });
    });
    EXPECT_GE(sent, 3U);
    server.disconnect();
}

} // namespace
