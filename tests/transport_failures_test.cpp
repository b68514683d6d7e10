// The UDP and TCP classes, while each of their system calls and allocations fails in turn. The exact lines
// are held in fault_test.cpp and tcp_fault_test.cpp.
#include "each_failure.h"
#include "failures_fixture.h"
#include "tcp_support.h"

#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <poll.h>

#include <optional>
#include <stdexcept>
#include <vector>

namespace {

using namespace std::chrono_literals;
using tcp_test::kLocal;
using tcp_test::Peer;

constexpr const char* kGroup = "239.9.8.7";

/// Counts, after it has found memory.
class Counter final : public net::iUdpDataListener, public net::iUdpCheckerListener {
public:
    std::atomic<int> count = 0;

private:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override { add(); }
    void OnUdpCheckerIpFound(unsigned int) override { add(); }
    void add() {
        takeMemory();
        ++count;
    }
};

class Visits final : public net::iTcpDataListener {
public:
    std::atomic<int> connected = 0;
    std::atomic<int> pieces = 0;
    std::atomic<int> lastFd = -1;

private:
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int) override {
        takeMemory();
        ++pieces;
    }
    void OnTcpClientConnected(int fd, const char*, unsigned short) override {
        takeMemory();
        lastFd = fd;
        ++connected;
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short) override { takeMemory(); }
};

void interfaces() {
    const unsigned int local = net::transAddr(kLocalAddress);
    EXPECT_TRUE(inTheEnd([&] {
        std::vector<std::string> addresses;
        net::GetIpByDomainName("localhost", addresses);
        char mac[32] = "";
        char name[] = "eth0";
        net::getMac(mac, name);
        try {
            return net::localMac(local).size() == 12 && net::localIfaName(local) == name;
        } catch (const std::logic_error&) { // no interface carries it
            return false;
        }
    }));
}

void udpSocket() {
    Source source(kGroup, 5000);
    Counter counter;
    net::UdpSocket socket(&counter, 64);
    socket.SetGroupRecvSockAddr(source.local(), kGroup, 5000);
    soon([&] { return source.send("text"), counter.count > 0; });
    socket.SetSendSockAddr(source.local(), kGroup, 5001);
    socket.SendData("x", 1);
    socket.notifyForQuit();
}

void udpSender() {
    net::UdpSender sender(kGroup, 5000, net::transAddr(kLocalAddress), 0);
    sender.setMulticastLoop(true);
    sender.sendMultipleDatas({{"x", 1}, {"y", 1}});
    EXPECT_TRUE(inTheEnd([&] { return sender.sendData("x", 1) == 1; }));
    const net::UdpSender broadcast("255.255.255.255", 5000, net::transAddr(kLocalAddress), 0);
    broadcast.sendData("x", 1);
}

void udpReceiver() {
    Source source(kGroup, 5000);
    Counter counter;
    const net::UdpReceiver receiver(&counter, source.local(), kGroup, 5000, 64);
    EXPECT_TRUE(inTheEnd([&] {
        return soon([&] { return source.send("text"), counter.count > 0; }) || isSaid("function[thread]");
    }));
}

void udpReceiverAnywhere() {
    const net::UdpReceiver receiver(nullptr, 0, kGroup, 5000, 64);
    const net::UdpReceiver broadcast(nullptr, 0, "255.255.255.255", 5001, 64);
}

void udpChecker() {
    Source source(kGroup, 5000);
    Counter counter;
    net::UdpChecker checker(kGroup, 5000, "text");
    checker.addListener(&counter);
    EXPECT_TRUE(inTheEnd([&] {
        return soon([&] { return source.send("text"), counter.count > 0; }) || isSaid("operator(),30,");
    }));
    checker.removeListener(&counter);
}

void tcpServer() {
    Visits visits;
    std::optional<Peer> peer;
    unsigned short port = 0;
    {
        const Sound sound;
        port = tcp_test::freePort();
    }
    net::TcpServer server(&visits);
    EXPECT_TRUE(server.connect(kLocal, port, 5) || server.connect(kLocal, port, 5));
    unsigned short peerPort = 0;
    {
        const Sound sound;
        peerPort = peer.emplace(port).port();
    }
    soon([&] { return visits.connected > 0; });
    server.sendData("all", 3);
    server.sendMultipleDatas({{"a", 1}, {"ll", 2}});
    server.sendData(visits.lastFd, "one", 3);
    server.sendData(kLocal, peerPort, "one", 3);
    server.closeClient(visits.lastFd);
    EXPECT_TRUE(inTheEnd([&] {
        const Sound sound;
        const int before = visits.pieces;
        const Peer visitor(port);
        visitor.send("hello");
        return soon([&] { return visits.pieces > before; }) ||
               isSaid("select::rfds"); // which ends the accepting
    }));
    server.disconnect();
    EXPECT_EQ(server.numOfClients(), 0);
}

/// Listens, and says hello to all who have connected.
class Greeter {
public:
    Greeter() {
        EXPECT_EQ(m_listening.on(::bind, 0), 0);
        EXPECT_EQ(::listen(m_listening.fd(), 100), 0);
    }
    unsigned short port() const { return m_listening.port(); }
    void greet() {
        const Sound sound;
        for (pollfd caller{m_listening.fd(), POLLIN, 0}; ::poll(&caller, 1, 0) > 0;)
            m_peers.emplace_back(
                net::detail::Descriptor(::accept4(m_listening.fd(), nullptr, nullptr, SOCK_CLOEXEC)));
        for (const Peer& peer : m_peers)
            peer.send("hello");
    }

private:
    Peer m_listening;
    std::vector<Peer> m_peers;
};

void tcpClient() {
    std::optional<Greeter> greeter;
    unsigned short port = 0;
    {
        const Sound sound;
        port = greeter.emplace().port();
    }
    Visits visits;
    net::TcpClient client(&visits, kLocal, port, net::transAddr(kLocal));
    client.connectOnce();
    client.sendData("a", 1);
    client.sendMultipleDatas({{"b", 1}, {"c", 1}});
    client.asyncSendData("d", 1);
    EXPECT_TRUE(inTheEnd([&] { // with connections that it makes by itself
        const int before = visits.pieces;
        return soon([&] { return greeter->greet(), visits.pieces > before; });
    }));
    client.notifyForQuit();
}

// Quiet is what standard output tells (of a client that is lost, of an attempt to connect), what fails while
// the object ends, and what is looked at again a moment later.
const Scenario kScenarios[] = {
    {"Interfaces", &interfaces},
    {"UdpSocket", &udpSocket, {"recvfrom"}},
    {"UdpSender", &udpSender},
    {"UdpReceiver", &udpReceiver, {"getifaddrs", "recv", "recvfrom"}},
    {"UdpReceiverAnywhere", &udpReceiverAnywhere, {"connect", "getifaddrs", "recv", "recvfrom"}},
    {"UdpChecker", &udpChecker, {"recv"}},
    {"TcpServer", &tcpServer, {"recv", "send"}},
    {"TcpClient", &tcpClient, {"connect", "fcntl", "poll", "recv", "send"}},
};

INSTANTIATE_TEST_SUITE_P(Transport, EachCall, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(Transport, EachAllocation, testing::ValuesIn(kScenarios), nameOf);

} // namespace
