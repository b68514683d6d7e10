// What a Watch tells of a LAN.
#include "../faults.h"
#include "watch_fixture.h"

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/tcpsocket.h>

namespace {

using namespace std::chrono_literals;
using Origin = radar::LocalAddress::Origin;

TEST_F(WatchOnLan, TellsComingsAndConflictsAndSendsCommands) {
    const auto north = serve(m_host1, "North", 16);
    const auto watching = watch();
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
    EXPECT_EQ(watching->localAddress().origin, Origin::ProfileAddress);
    EXPECT_EQ(next(*watching), "North appeared, 16 at 10.20.1.1");
    const auto radar = watching->find("North");
    ASSERT_TRUE(radar.has_value());
    ASSERT_EQ(radar->streams.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_EQ(bytes(radar->streams[i]), bytes(radar::groups(16)[i])) << "stream " << i;

    Recorder objections;
    const auto tap = makeIn<net::UdpReceiver>(m_host2, &objections, net::transAddr("10.20.1.2"), "236.6.7.4",
                                              static_cast<unsigned short>(6768), 64);
    const auto south = serve(m_host2, "South", 16, 1);
    EXPECT_EQ(next(*watching), "South appeared, 16 at 10.20.1.2");
    EXPECT_EQ(next(*watching), "16 shared: North South");
    EXPECT_FALSE(watching->renumber("East"));
    EXPECT_TRUE(watching->renumber("South"));
    EXPECT_EQ(objections.nextBytes(), std::string("\x03\xA1\x10\x01", 4));
    EXPECT_TRUE(watching->reset());
    EXPECT_EQ(objections.nextBytes(), "\x20\xA1");

    const auto second = watch();
    EXPECT_EQ(second->radars().size(), 2U) << "as it is, before an event is taken";
    EXPECT_EQ(next(*second), "local 10.20.2.1 (eth0)");
    EXPECT_EQ(second->radars().size(), 0U) << "as the events taken tell";
    EXPECT_EQ(next(*second), "North appeared, 16 at 10.20.1.1");
    EXPECT_EQ(next(*second), "South appeared, 16 at 10.20.1.2");
    EXPECT_EQ(next(*second), "16 shared: North South");
    EXPECT_EQ(next(*second, 0ms), "nothing");
    EXPECT_LT(second->find("South")->age, 8s);
}

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
    m_lan.changeAddress(m_display, 0, "");
    EXPECT_EQ(next(*watching), "lost 10.20.2.9");
    EXPECT_EQ(watching->localAddress().origin, Origin::None);
    m_lan.changeAddress(m_display, 0, "10.20.2.9/16");
    EXPECT_EQ(next(*watching), "local 10.20.2.9 (eth0)");
}

TEST_F(WatchOnLan, ExamplesTellWhoIsThere) {
    const auto north = serve(m_host1, "North", 16);
    lab::Process epoll = m_display.start({{WATCH_epoll}});
    EXPECT_EQ(epoll.lineWith("North", 20s), "North appeared: image on 236.6.7.35 port 6003");
    EXPECT_EQ(epoll.lineWith("North", 20s), "North appeared: image on 236.6.7.38 port 6006");
#ifdef WATCH_glib
    lab::Process glib = m_display.start({{WATCH_glib}});
    EXPECT_EQ(glib.lineWith("North", 20s), "  North, host id 16");
#endif
}

TEST_F(WatchOnLan, TakesTheAddressOfANamedInterface) {
    m_profile.write("[Local]\nNetName = eth1\n");
    const auto watching = watch();
    EXPECT_EQ(next(*watching), "local 192.168.1.1 (eth1)");
    EXPECT_EQ(watching->localAddress().origin, Origin::ProfileInterface);
    m_lan.changeAddress(m_display, 1, "192.168.1.7/24");
    EXPECT_EQ(next(*watching), "local 192.168.1.7 (eth1)") << "it follows the interface";
}

/// A radar that is asked over TCP.
class FixedRadar final : public net::iTcpDataListener {
public:
    explicit FixedRadar(const std::string& announcement) : m_announcement(announcement) {
        m_server.connect("10.20.1.1", 6878, 4);
    }
    void OnTcpDataReceived(int fd, const char*, unsigned short, const char* data, int len) override {
        if (std::string(data, static_cast<std::size_t>(len)).find("\x01\xB1") != std::string::npos)
            m_server.sendData(fd, m_announcement.data(), static_cast<unsigned>(m_announcement.size()));
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

private:
    const std::string m_announcement;
    net::TcpServer m_server{this};
};

TEST_F(WatchOnLan, HearsTheTcpServiceOfAFixedRadarOverAConnection) {
    m_profile.write("[Local]\nIP = 10.20.2.1\n[Radar]\nIP = 10.20.1.1\nTCPService = yes\n");
    std::string announcement = protocol::composeAnnouncement("ZQ-7", 16, 2);
    announcement[22] = 1;
    announcement[30] = 1;
    const auto radar = makeIn<FixedRadar>(m_host1, announcement);
    const auto south = serve(m_host2, "South", 17);
    const auto watching = watch();
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
    EXPECT_EQ(next(*watching), "ZQ-7 appeared, 16 at 10.20.1.1");
    const auto found = watching->find("ZQ-7:TCP");
    ASSERT_TRUE(found && found->tcp && found->streams.empty());
    EXPECT_EQ(watching->radars().size(), 1U) << "and no other radar";
}

} // namespace
