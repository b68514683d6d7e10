// The UDP and TCP classes, while each of their system calls and allocations fails in turn, and the lines that
// say so.
#include "each_failure.h"
#include "failures_fixture.h"
#include "tcp_support.h"

#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/transport/protocol_sockets.h>
#include <UdpSocket/udpsocket.h>

namespace {

using tcp_test::kLocal;
using tcp_test::Peer;

constexpr const char* kGroup = "239.9.8.7";
constexpr unsigned short kTcpPort = 7000;

/// Counts, after it has found memory.
class Counter final : public net::iUdpDataListener,
                      public net::iUdpCheckerListener,
                      public net::iTcpDataListener {
public:
    std::atomic<int> count = 0; // of what came
    std::atomic<int> connected = 0;
    std::atomic<int> lastFd = -1;

private:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override { add(); }
    void OnUdpCheckerIpFound(unsigned int) override { add(); }
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int) override { add(); }
    void OnTcpClientConnected(int fd, const char*, unsigned short) override {
        takeMemory();
        lastFd = fd;
        ++connected;
    }
    void OnTcpClientDisconnected(int, const char*, unsigned short) override { takeMemory(); }
    void add() {
        takeMemory();
        ++count;
    }
};

void interfaces() {
    const unsigned int local = net::transAddr(kLocalAddress);
    const std::set<unsigned int> addresses = net::localIpSet();
    EXPECT_TRUE(addresses == std::set{local} || addresses == std::set{0U});
    EXPECT_TRUE(inTheEnd([&] {
        std::vector<std::string> resolved;
        net::GetIpByDomainName("localhost", resolved);
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
}

void udpReceiver() {
    Source source(kGroup, 5000);
    Counter counter;
    const auto receiver = net::detail::makeReceiver(&counter, {kGroup, 5000}, source.local());
    EXPECT_TRUE(inTheEnd([&] {
        return soon([&] { return source.send("text"), counter.count > 0; }) || isSaid("function[thread]");
    }));
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
    Counter visits;
    std::optional<Peer> peer;
    net::TcpServer server(&visits);
    EXPECT_TRUE(server.connect(kLocal, kTcpPort, 5) || server.connect(kLocal, kTcpPort, 5));
    unsigned short peerPort = 0;
    {
        const Sound sound;
        peerPort = peer.emplace(kTcpPort).port();
    }
    soon([&] { return visits.connected > 0; });
    server.sendData("all", 3);
    server.sendMultipleDatas({{"a", 1}, {"ll", 2}});
    server.sendData(visits.lastFd, "one", 3);
    server.sendData(kLocal, peerPort, "one", 3);
    server.closeClient(visits.lastFd);
    EXPECT_TRUE(inTheEnd([&] {
        const Sound sound;
        const int before = visits.count;
        const Peer visitor(kTcpPort);
        visitor.send("hello");
        return soon([&] { return visits.count > before; }) ||
               isSaid("select::rfds"); // which ends the accepting
    }));
    server.disconnect();
    EXPECT_EQ(server.numOfClients(), 0);
}

/// One client reads what it is sent, and one does not, so that a rest of it is kept.
void tcpServerWithMuchToSend() {
    constexpr int kMessage = 8 << 20; // more than a connection holds
    Counter visits;
    net::TcpServer server(&visits);
    EXPECT_TRUE(server.connect(kLocal, kTcpPort, 5) || server.connect(kLocal, kTcpPort, 5));
    std::optional<Peer> attentive;
    std::optional<Peer> deaf;
    std::string message;
    std::jthread reading;
    std::atomic<std::size_t> received = 0;
    {
        const Sound sound;
        message.assign(kMessage, 'm');
        attentive.emplace(kTcpPort);
        soon([&] { return visits.connected > 0; });
        deaf.emplace(kTcpPort, kLocal, 1);
        reading = std::jthread([&] {
            const Sound soundToo;
            for (std::string bytes; !(bytes = attentive->read(65536, 0)).empty();)
                received += bytes.size();
        });
    }
    const int first = visits.lastFd;
    soon([&] { return visits.connected > 1; });
    try {
        server.sendData(message.data(), kMessage);
        server.sendMultipleDatas({{message.data(), 1}, {message.data(), kMessage - 1}});
        server.sendData(first, message.data(), kMessage);
    } catch (const std::bad_alloc& error) {
        std::fprintf(stderr, "thrown: %s\n", error.what());
    }
    EXPECT_TRUE(inTheEnd([&] { return received % kMessage == 0; })) << "a message is whole, or not there";
    server.disconnect();
    reading.join();
    EXPECT_EQ(received % kMessage, 0U);
}

void tcpClient() {
    std::optional<tcp_test::Listening> listening;
    std::vector<Peer> peers;
    {
        const Sound sound;
        listening.emplace(kTcpPort);
    }
    Counter visits;
    net::TcpClient client(&visits, kLocal, kTcpPort, net::transAddr(kLocal));
    client.connectOnce();
    client.sendData("a", 1);
    client.sendMultipleDatas({{"b", 1}, {"c", 1}});
    client.asyncSendData("d", 1);
    EXPECT_TRUE(inTheEnd([&] { // with connections that it makes by itself
        const int before = visits.count;
        return soon([&] {
            while (listening->isCalled())
                peers.push_back(listening->accept());
            for (const Peer& peer : peers)
                peer.send("hello");
            return visits.count > before;
        });
    }));
    client.notifyForQuit();
}

/// A report, to its reason. @param where function and number
std::string report(const char* file, const std::string& where, const std::string& configured,
                   const std::string& call) {
    return "SocketError<UdpSocket/" + std::string(file) + "," + where + ",(" + configured +
           ")>:\n\tfunction[" + call + "],code[";
}
std::string udp(const char* where, const char* call, const char* configured = "239.9.8.7,5000") {
    return report("udpsocket.cpp", where, configured, call);
}
std::string tcp(const char* where, const char* call, const char* configured = "127.0.0.1,7000") {
    return report("tcpsocket.cpp", where, configured, call);
}

const std::vector<std::string> kInterfaces = {"get ifAddrs: ", "socket : ", "ioctl : "};
const std::vector<std::string> kSocket = {
    udp("SetGroupRecvSockAddr,148", "socket", ",0"),
    udp("SetGroupRecvSockAddr,152", "setsockopt::SO_REUSERADDR", ",0"),
    udp("SetGroupRecvSockAddr,157", "bind"),
    udp("SetGroupRecvSockAddr,161", "setsockopt::IP_ADD_MEMBERSHIP"),
    udp("SetGroupRecvSockAddr,165", "setsockopt::SO_RCVTIMEO"),
    udp("operator(),182", "recvfrom"),
    udp("launchThread,186", "thread"),
    udp("SetSendSockAddr,132", "socket"),
    udp("SetSendSockAddr,136", "setsockopt::SO_REUSERADDR"),
    udp("SetSendSockAddr,138", "Setsockopt IP_ADD_MEMBERSHIP"),
    udp("SendData,192", "sendto"),
};
const std::vector<std::string> kSender = {
    udp("UdpSenderPrivate,258", "socket"),
    udp("UdpSenderPrivate,263", "setsockopt::SO_REUSEADDR"),
    udp("UdpSenderPrivate,269", "setsockopt::IP_MULTICAST_IF"),
    udp("UdpSenderPrivate,272", "setsockopt::IP_MULTICAST_LOOP"),
    udp("UdpSenderPrivate,274", "bind"),
    udp("sendData,320", "sendto"),
    udp("sendMultipleDatas,346", "sendmmsg"),
    udp("setMulticastLoop,356", "setsockopt::IP_MULTICAST_LOOP"),
};
const std::vector<std::string> kReceiver = {
    udp("UdpReceiverPrivate,414", "thread"),
    udp("UdpReceiverPrivate,441", "socket"),
    udp("UdpReceiverPrivate,445", "setsockopt::SO_REUSEADDR"),
    udp("UdpReceiverPrivate,447", "setsockopt::SO_RCVBUF"),
    udp("UdpReceiverPrivate,448", "setsockopt::IP_MULTICAST_ALL"),
    udp("UdpReceiverPrivate,449", "bind"),
    udp("UdpReceiverPrivate,459", "setsockopt::IP_ADD_MEMBERSHIP"),
    udp("UdpReceiverPrivate,462", "setsockopt::SO_RCVTIMEO"),
    udp("UdpReceiverPrivate,477", "setsockopt::SO_BINDTODEVICE"),
    udp("recvThread,499", "recvfrom"),
    udp("growReceiveBuffer,530", "setsockopt::SO_RCVBUF"),
};
const std::vector<std::string> kChecker = {
    udp("operator(),30", "thread"),
    udp("operator(),90", "thread"),
    udp("operator(),107", "socket"),
    udp("operator(),111", "setsockopt::SO_REUSERADDR"),
    udp("operator(),114", "setsockopt::IP_MULTICAST_ALL"),
    udp("operator(),119", "bind"),
    udp("operator(),124", "setsockopt::IP_ADD_MEMBERSHIP"),
    udp("operator(),128", "setsockopt::SO_RCVTIMEO"),
};
const std::vector<std::string> kServer = {
    tcp("init,226", "socket", "0.0.0.0,0"), // no address is stored yet
    tcp("init,233", "setsockopt::SO_REUSERADDR", "0.0.0.0,0"),
    tcp("init,241", "bind"),
    tcp("init,246", "listen"),
    tcp("init,246", "thread"),
    tcp("operator(),296", "send"),
    tcp("operator(),331", "send"),
    tcp("operator(),452", "select::rfds"),
    tcp("operator(),466", "accept"),
    tcp("operator(),466", "thread"),
    tcp("operator(),503", "setsockopt::SO_RCVTIMEO"),
    tcp("operator(),506", "setsockopt::SO_SNDTIMEO"),
};
const std::vector<std::string> kClient = {
    tcp("reset,783", "socket"),
    tcp("reset,810", "setsockopt::SO_BINDTODEVICE"),
    tcp("reset,822", "setsockopt::SO_RCVTIMEO"),
    tcp("receiveThread,856", "recv error"),
    tcp("receiveThread,856", "thread"),
    tcp("sendData,702", "send"),
    tcp("sendMultipleDatas,724", "send"),
    "tcp client send error -1\r\n",
    "tcp client writev error -1\r\n",
};

// Quiet is what standard output tells (of a client that is lost, of an attempt to connect), what fails while
// the object ends, and what is looked at again a moment later.
const Scenario kScenarios[] = {
    {"Interfaces", &interfaces, {}, false, kInterfaces},
    {"UdpSocket", &udpSocket, {"recvfrom"}, false, kSocket},
    {"UdpSender", &udpSender, {}, false, kSender},
    {"UdpReceiver", &udpReceiver, {"getifaddrs", "recv", "recvfrom"}, false, kReceiver},
    {"UdpChecker", &udpChecker, {"recv"}, false, kChecker},
    {"TcpServer", &tcpServer, {"recv", "send"}, false, kServer},
    {"TcpClient", &tcpClient, {"connect", "fcntl", "poll", "recv", "send"}, false, kClient},
};
const Scenario kMuchToSend[] = {{"TcpServerWithMuchToSend", &tcpServerWithMuchToSend, {}, true}};

INSTANTIATE_TEST_SUITE_P(Transport, EachCall, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(Transport, EachAllocation, testing::ValuesIn(kScenarios), nameOf);
INSTANTIATE_TEST_SUITE_P(Sends, EachAllocation, testing::ValuesIn(kMuchToSend), nameOf);

} // namespace
