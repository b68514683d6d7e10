// A picture that keeps coming, whatever happens to the radar, its host and this computer.
#include "watch_fixture.h"

#include <RadarWatch/radarstream.h>

#include <algorithm>
#include <atomic>

namespace {

using namespace std::chrono_literals;
using radar::Stream;
using radar::StreamEvent;
using Kind = StreamEvent::Kind;
using Why = StreamEvent::Why;

class Picture : public WatchOnLan {
protected:
    Picture() : WatchOnLan("") {} // the local address is searched, and may change

    /// North is at that host under that id from now on.
    void put(const lab::Node& host, int id) {
        m_north.reset();
        m_north = serve(host, "North", id, 1);
        m_image = makeIn<net::UdpSender>(host, radar::groups(id)[0].imageStream, 0U, std::uint16_t{0});
    }
    /// Whether one of these is told, while the image is sent, and the picture comes after it.
    bool comesAfter(const std::vector<std::pair<Kind, Why>>& expected) {
        const auto sends = [&](auto condition) {
            return comesTrue(
                [&] {
                    m_image->sendData("image", 5);
                    return condition();
                },
                30s);
        };
        const bool told = sends([&] {
            const auto event = m_events.next(0ms);
            return event && std::ranges::count(expected, std::pair(event->kind, event->why)) == 1;
        });
        const long before = m_count;
        return told && sends([&] { return m_count >= before + 20; });
    }

    std::unique_ptr<HostServer> m_north;
    std::unique_ptr<net::UdpSender> m_image;
    Log<StreamEvent> m_events;
    std::atomic<long> m_count = 0;
};

TEST_F(Picture, KeepsComing) {
    auto watching = watch();
    const auto stream = makeIn<Stream>(
        m_display, *watching, "North", radar::Image, [this](const radar::Datagram&) { ++m_count; },
        [this](const StreamEvent& event) { m_events.add(event); });
    put(m_host1, 16);
    EXPECT_TRUE(comesAfter({{Kind::Started, Why::None}}));
    put(m_host1, 20);
    EXPECT_TRUE(comesAfter({{Kind::Moved, Why::Endpoint}}));
    watching.reset(); // which the stream outlives
    m_lan.unplug(m_display);
    m_lan.plugIn(m_display);
    EXPECT_TRUE(comesAfter({{Kind::Started, Why::None}, {Kind::Moved, Why::Interface}}));
    m_lan.changeAddress(m_display, 0, "10.20.2.7/16");
    EXPECT_TRUE(comesAfter({{Kind::Moved, Why::LocalAddress}}));
    put(m_host2, 40);
    EXPECT_TRUE(comesAfter({{Kind::Started, Why::None}, {Kind::Moved, Why::Endpoint}}));
}

} // namespace
