// What a Watch tells of a LAN, and a stream that follows its radar there.
#include "../faults.h"
#include "watch_fixture.h"

#include <RadarWatch/radarstream.h>

namespace {

using Origin = radar::LocalAddress::Origin;

TEST_F(WatchOnLan, LocalAddressGoesAndComesBack) {
    const auto watching = watch(Watch::Options{net::transAddr("10.20.2.9")}); // which this computer has not
    EXPECT_FALSE(watching->renumber("North") || watching->reset());
    m_lan.changeAddress(m_display, 0, "10.20.2.9/16");
    EXPECT_EQ(next(*watching), "local 10.20.2.9 (eth0)");
    EXPECT_EQ(watching->localAddress().origin, Origin::Options);
    {
        const Fault fault("getifaddrs", EMFILE);
        EXPECT_TRUE(comesTrue([&] { return fault.hit(); }));
    }
    const auto north = serve(m_host1, "North", 16);
    EXPECT_EQ(next(*watching), "North appeared, 16 at 10.20.1.1") << "no address was taken for lost";
    Recorder heard;
    const auto tap = makeIn<net::UdpReceiver>(m_host2, &heard, net::transAddr("10.20.1.2"),
                                              wire::kDiscovery.address, wire::kDiscovery.port, 1024);
    for (int own = 0; own < 3;)
        if (const Datagram datagram = heard.next().value(); datagram.from.starts_with("10.20.2.9:")) {
            EXPECT_EQ(datagram.bytes, wire::text(wire::kQuery)) << "nothing else goes to the radars";
            ++own;
        }
    m_lan.changeAddress(m_display, 0, "");
    EXPECT_EQ(next(*watching), "lost 10.20.2.9");
    EXPECT_EQ(watching->localAddress().origin, Origin::None);
    m_lan.changeAddress(m_display, 0, "10.20.2.9/16");
    EXPECT_EQ(next(*watching), "local 10.20.2.9 (eth0)");
}

TEST_F(WatchOnLan, ExamplesTellWhoIsThere) {
    const auto north = serve(m_host1, "North\x1B[2J", 16);
    lab::Process epoll = m_display.start({{WATCH_epoll}});
    EXPECT_EQ(epoll.lineWith("North", 20s), R"(North\x1B[2J appeared: image on 236.6.7.35 port 6003)");
    EXPECT_EQ(epoll.lineWith("North", 20s), R"(North\x1B[2J appeared: image on 236.6.7.38 port 6006)");
#ifdef WATCH_glib
    lab::Process glib = m_display.start({{WATCH_glib}});
    EXPECT_EQ(glib.lineWith("North", 20s), R"(  North\033[2J, host id 16)");
#endif
}

TEST_F(WatchOnLan, TakesTheAddressOfANamedInterface) {
    m_profile.write("[Local]\nNetName = eth1\n");
    const auto watching = watch();
    EXPECT_EQ(next(*watching), "local 192.168.1.1 (eth1)");
    EXPECT_EQ(watching->localAddress().origin, Origin::ProfileInterface);
    m_lan.changeAddress(m_display, 1, "192.168.1.7/24");
    EXPECT_EQ(next(*watching), "local changed 192.168.1.7 (eth1)") << "it follows the interface";
}

} // namespace
