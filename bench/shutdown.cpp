// How long destruction takes: the longest and the median of many, for every object that owns a thread.

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <lab/lan.h>
#include <lab/private_network.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kRepetitions = 20;

struct Ignore : net::iUdpDataListener {
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override {}
};

/// Makes an object, lets it live for @p life so that its threads wait where they usually wait, and destroys
/// it.
template <class Make>
void measure(const char* name, std::chrono::milliseconds life, Make make) {
    std::vector<double> times;
    for (int i = 0; i < kRepetitions; ++i) {
        auto object = make();
        std::this_thread::sleep_for(life);
        const auto start = Clock::now();
        object.reset();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    std::fprintf(stderr, "%-38s median %6.2f ms   longest %6.2f ms of %d\n", name, times[kRepetitions / 2],
                 times.back(), kRepetitions);
}

} // namespace

int main() {
    lab::enterPrivateNetwork();
    if (std::freopen("/dev/null", "w", stdout) == nullptr) // the library's diagnostics
        return 1;
    lab::Lan lan({lab::radarHost(1), lab::display(2)});
    const lab::Inside inside = lan.node("display").enter();
    const unsigned int localIp = net::transAddr("10.20.2.1");
    Ignore listener;

    measure("net::UdpSender", 1ms,
            [&] { return std::make_unique<net::UdpSender>("236.1.2.3", 5000, localIp, 0); });
    measure("net::UdpReceiver", 20ms,
            [&] { return std::make_unique<net::UdpReceiver>(&listener, localIp, "236.1.2.3", 5000, 1024); });
    measure("net::UdpSocket, receiving", 20ms, [&] {
        auto socket = std::make_unique<net::UdpSocket>(&listener, 1024);
        socket->SetGroupRecvSockAddr(localIp, "236.1.2.3", 5000);
        return socket;
    });
    measure("net::TcpClient, not connected", 20ms,
            [&] { return std::make_unique<net::TcpClient>(nullptr, "10.20.1.1", 6878, localIp); });
    measure("MultiRadarClient, searching", 100ms, [] { return std::make_unique<MultiRadarClient>(); });
    measure("MultiRadarClient, settled", 100ms, [&] {
        auto client = std::make_unique<MultiRadarClient>();
        client->setLocalIP(localIp);
        return client;
    });
    const lab::Inside host = lan.node("host1").enter();
    measure("HostServer", 20ms, [] { return std::make_unique<HostServer>("R", std::uint8_t{16}, 2U); });
    measure("HostNegotiator, negotiating", 20ms, [] {
        auto negotiator = std::make_unique<HostNegotiator>(nullptr, nullptr);
        negotiator->asyncLogin(16);
        return negotiator;
    });
}
