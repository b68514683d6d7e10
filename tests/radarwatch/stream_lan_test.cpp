// A picture that keeps coming, whatever happens to the radar, its host and this computer.
#include "watch_fixture.h"

#include <RadarWatch/radarstream.h>

#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/protocol/address_plan.h>

#include <arpa/inet.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

using namespace std::chrono_literals;
using radar::StreamEvent;
using Kind = StreamEvent::Kind;
using Why = StreamEvent::Why;

/// North: negotiates an id, announces itself, and sends a numbered image datagram every 5 ms.
constexpr std::uint8_t kNeverDrawn = 1; // a host id that a radar which is told to renumber surely leaves

class Host {
public:
    Host(const lab::Node& node, std::uint8_t id) {
        const lab::Inside inside = node.enter();
        m_thread = std::thread([this, id] { run(id); });
    }
    ~Host() {
        m_running = false;
        m_thread.join();
    }

private:
    void run(std::uint8_t id) {
        std::atomic<int> held = 0;
        HostNegotiator negotiator([] {}, [&](std::uint8_t got) { held = got; });
        negotiator.asyncLogin(id);
        std::unique_ptr<HostServer> server;
        std::unique_ptr<net::UdpSender> image;
        std::uint32_t number = 0;
        for (; m_running; std::this_thread::sleep_for(5ms)) {
            if (const int got = held.exchange(0); got != 0) {
                const auto own = static_cast<std::uint8_t>(got);
                image = std::make_unique<net::UdpSender>(
                    plan::announcedEndpoint(own, &RadarAddress::imageStream, 0), 0, std::uint16_t{0});
                server.reset();
                server = std::make_unique<HostServer>("North", own, 1);
            }
            const std::uint32_t bytes = htonl(++number);
            if (image)
                image->sendData(reinterpret_cast<const char*>(&bytes), sizeof bytes);
        }
    }

    std::atomic<bool> m_running = true;
    std::thread m_thread;
};

class Picture : public WatchOnLan {
protected:
    Picture() : WatchOnLan("") { // the local address is searched, and may change
        radar::StreamOptions options;
        options.sequence.emplace();
        const lab::Inside inside = m_display.enter();
        m_stream = std::make_unique<radar::Stream>(
            *m_watch, "North", radar::Image, [this](const radar::Datagram&) { note(); },
            [this](const StreamEvent& event) { m_events.add(event); }, options);
    }
    ~Picture() override { m_stream.reset(); }

    void note() {
        const std::lock_guard lock(m_mutex);
        const auto now = std::chrono::steady_clock::now();
        if (m_count++ > 0)
            m_longestGap = std::max(m_longestGap, now - m_last);
        m_last = now;
    }
    long count() {
        const std::lock_guard lock(m_mutex);
        return m_count;
    }
    std::chrono::steady_clock::duration takeLongestGap() {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_longestGap, 0ns);
    }
    bool comes(long datagrams = 20) {
        const long before = count();
        return comesTrue([&] { return count() >= before + datagrams; }, 30s);
    }
    /// Whether this is told, and the picture comes after it.
    bool comesAfter(Kind kind, Why why) {
        return comesTrue(
                   [&] {
                       const auto event = m_events.next(100ms);
                       return event && event->kind == kind && event->why == why;
                   },
                   30s) &&
               comes();
    }

    std::unique_ptr<Watch> m_watch = watch();
    Log<StreamEvent> m_events;
    std::mutex m_mutex; // guards the next three
    long m_count = 0;
    std::chrono::steady_clock::time_point m_last;
    std::chrono::steady_clock::duration m_longestGap{};
    std::unique_ptr<radar::Stream> m_stream;
};

TEST_F(Picture, KeepsComing) {
    std::optional<Host> north(std::in_place, m_host1, kNeverDrawn);
    ASSERT_TRUE(comesAfter(Kind::Started, Why::None));
    takeLongestGap();
    ASSERT_TRUE(m_watch->renumber("North"));
    EXPECT_TRUE(comesAfter(Kind::Moved, Why::Endpoint));
    EXPECT_LT(takeLongestGap(), 2s);

    m_lan.changeAddress(m_display, 0, "10.20.2.7/16");
    EXPECT_TRUE(comesAfter(Kind::Moved, Why::LocalAddress));

    m_lan.unplug(m_display);
    m_lan.plugIn(m_display);
    EXPECT_TRUE(comesTrue([&] {
        for (const StreamEvent& event : m_events.all())
            if (event.kind == Kind::Started || (event.kind == Kind::Moved && event.why == Why::Interface))
                return true;
        return false;
    }));
    EXPECT_TRUE(comes());
    m_events.clear();

    north.reset();
    north.emplace(m_host2, std::uint8_t{40});
    EXPECT_TRUE(comesTrue(
        [&] {
            const auto event = m_events.next(100ms);
            return event && (event->kind == Kind::Moved || event->kind == Kind::Started) &&
                   event->endpoint.ip ==
                       NetAddress(plan::announcedEndpoint(40, &RadarAddress::imageStream, 0)).ip;
        },
        30s));
    EXPECT_TRUE(comes());
}

TEST_F(Picture, ComesWithWhatALossyNetworkLeavesOfIt) {
    const Host north(m_host1, 20);
    ASSERT_TRUE(comesAfter(Kind::Started, Why::None));
    const radar::Statistics before = m_stream->statistics();
    m_lan.dropRate(30);
    ASSERT_TRUE(comes(1500)); // ten seconds
    const radar::Statistics after = m_stream->statistics();
    const auto came = static_cast<double>(after.datagrams - before.datagrams);
    const auto missing = static_cast<double>(after.missing - before.missing);
    EXPECT_NEAR(missing / (came + missing), 0.3, 0.05);
    EXPECT_EQ(after.droppedAtSocket, 0U);
    EXPECT_TRUE(m_events.all().empty());
}

TEST_F(Picture, OutlivesTheWatch) {
    const Host north(m_host1, 20);
    m_watch.reset();
    EXPECT_TRUE(comesAfter(Kind::Started, Why::None));
}

} // namespace
