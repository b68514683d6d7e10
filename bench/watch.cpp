// How soon an event is there, beside a plain receiver of the same datagrams, and what a Watch costs while
// nothing happens, beside a MultiRadarClient that is asked once a second.

#include "bench.h"

#include <RadarWatch/radarwatch.h>

#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Clock;
using bench::Seconds;

constexpr const char* kDisplayAddress = "10.20.2.1";

/// When the latest datagram was told.
class Told : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override { now(); }
    void now() { m_at = Clock::now().time_since_epoch().count(); }
    void forget() { m_at = 0; }
    bool isThere() const { return m_at != 0; }
    double microsecondsSince(Clock::time_point sent) const {
        return Seconds(Clock::duration(m_at.load()) - sent.time_since_epoch()).count() * 1e6;
    }

private:
    std::atomic<Clock::rep> m_at = 0;
};

template <class Condition>
bool comesTrue(Condition condition, Seconds limit) {
    for (const auto end = Clock::now() + limit; !condition();) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(100us);
    }
    return true;
}

/// Every datagram announces another host id, so that each is an event.
void latency(lab::Lan& lan) {
    Told plain;
    Told event;
    std::unique_ptr<net::UdpReceiver> receiver;
    std::unique_ptr<radar::Watch> watch;
    {
        const lab::Inside inside = lan.node("display").enter();
        const unsigned local = net::transAddr(kDisplayAddress);
        receiver = std::make_unique<net::UdpReceiver>(&plain, local, wire::kDiscovery.address,
                                                      wire::kDiscovery.port, 1024);
        watch = std::make_unique<radar::Watch>(
            [&](const radar::Event& told) {
                if (told.kind <= radar::Event::Kind::Changed)
                    event.now();
            },
            radar::Watch::Options{local});
    }
    const lab::Inside inside = lan.node("host1").enter();
    const net::UdpSender sender(wire::kDiscovery.address, wire::kDiscovery.port, net::transAddr("10.20.1.1"),
                                0);
    std::uint8_t id = 16;
    const auto announce = [&] {
        id = id == 63 ? 16 : static_cast<std::uint8_t>(id + 1);
        const std::string bytes = protocol::composeAnnouncement("North", id, 2);
        plain.forget();
        event.forget();
        const auto sent = Clock::now();
        sender.sendData(bytes.data(), static_cast<int>(bytes.size()));
        return sent;
    };
    if (!comesTrue(
            [&] {
                announce();
                return comesTrue([&] { return event.isThere() && plain.isThere(); }, 100ms);
            },
            20s))
        throw std::runtime_error("nothing is heard");
    std::vector<double> plainMedians;
    std::vector<double> eventMedians;
    for (int i = 0; i < bench::repetitions(); ++i) {
        std::vector<double> plainTimes;
        std::vector<double> eventTimes;
        while (eventTimes.size() < (bench::quick() ? 50 : 500)) {
            const auto sent = announce();
            if (!comesTrue([&] { return event.isThere() && plain.isThere(); }, 1s))
                continue; // lost
            plainTimes.push_back(plain.microsecondsSince(sent));
            eventTimes.push_back(event.microsecondsSince(sent));
        }
        plainMedians.push_back(bench::quantile(plainTimes, 0.5));
        eventMedians.push_back(bench::quantile(eventTimes, 0.5));
    }
    bench::record("watch/announcement to application", "net::UdpReceiver", "us", plainMedians);
    bench::record("watch/announcement to application", "radar::Watch", "us", eventMedians);
}

double fieldOf(pid_t process, const char* file, const std::string& field) {
    std::ifstream lines(std::filesystem::path("/proc") / std::to_string(process) / file);
    for (std::string name; lines >> name;)
        if (double value = 0; name == field + ":" && lines >> value)
            return value;
    throw std::runtime_error("no " + field);
}

/// @param make returns what stands, and is given up at the end
template <class Make>
bench::Measurement idle(lab::Lan& lan, const char* implementation, Make make) {
    return {implementation, [&lan, make] {
                bench::Child child(lan.node("display"),
                                   [&](const bench::Child::Wait& wait) -> std::vector<double> {
                                       const auto standing = make();
                                       wait();
                                       return {0};
                                   });
                const std::vector<double> figures{fieldOf(child.pid(), "status", "Threads"),
                                                  fieldOf(child.pid(), "smaps_rollup", "Private_Dirty")};
                child.finish();
                return figures;
            }};
}

void idle(lab::Lan& lan) {
    const auto client = [](unsigned local) {
        auto made = std::make_unique<MultiRadarClient>();
        made->setLocalIP(local);
        for (int i = 0; i < 30 && made->getRadar().empty(); ++i) {
            made->query();
            std::this_thread::sleep_for(1s);
        }
        return made;
    };
    const auto watch = [](unsigned local) {
        auto made = std::make_unique<radar::Watch>(radar::Watch::Options{local});
        while (const auto event = made->next(30s))
            if (event->kind == radar::Event::Kind::Appeared)
                break;
        return made;
    };
    const unsigned local = net::transAddr(kDisplayAddress);
    bench::takeTurns({{"watch/idle/threads", "threads"}, {"watch/idle/private memory", "KiB"}},
                     {idle(lan, "MultiRadarClient", [=] { return client(local); }),
                      idle(lan, "radar::Watch", [=] { return watch(local); }),
                      idle(lan, "MultiRadarClient, search", [=] { return client(0); }),
                      idle(lan, "radar::Watch, search", [=] { return watch(0); })},
                     bench::fewRepetitions());
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::radarHost(1), lab::display(1)});
    {
        const bench::Child host(lan.node("host1"), [](const bench::Child::Wait& wait) -> std::vector<double> {
            const HostServer server("North", 16, 2);
            wait();
            return {0};
        });
        idle(lan);
    }
    latency(lan);
}
