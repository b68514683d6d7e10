// How long destruction takes, for every object that owns a thread.

#include "bench.h"

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using bench::Clock;

struct Ignore : net::iUdpDataListener {
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override {}
};

/// Makes an object, lets it live for @p life so that its threads wait where they usually wait, and destroys
/// it.
template <class Make>
void measure(const char* name, std::chrono::milliseconds life, Make make) {
    std::vector<double> times;
    for (int i = 0; i < bench::repetitions(); ++i) {
        auto object = make();
        std::this_thread::sleep_for(life);
        const auto start = Clock::now();
        object.reset();
        times.push_back(bench::Seconds(Clock::now() - start).count() * 1e3);
    }
    bench::record(std::string("destruction, ") + name, "library", "ms", times);
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
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
