#include "profile_directory.h"
#include "recorder.h"
#include "records.h"

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

std::unique_ptr<HostServer> serve(const lab::Node& node, const std::string& name, int id, unsigned streams) {
    return makeIn<HostServer>(node, name.c_str(), static_cast<std::uint8_t>(id), streams);
}

/// A display with a configured address, ready to query, and what it hears on the discovery group.
class Discovery : public testing::Test {
protected:
    explicit Discovery(int hosts = 1)
        : m_lan([hosts] {
              std::vector<lab::NodePlan> plans{lab::display(1)};
              for (int number = 1; number <= hosts; ++number)
                  plans.push_back(lab::radarHost(number));
              return plans;
          }()) {
        m_client->addListener(&m_addresses);
        EXPECT_TRUE(m_addresses.reaches(1));
    }
    ~Discovery() override {
        net::detail::setClock(nullptr);
        net::detail::setTiming({});
    }

    void expectListed(const std::string& name) {
        EXPECT_TRUE(comesTrue([&] {
            m_client->query();
            return comesTrue([&] { return m_client->getRadarStreamCount(name.c_str()) == 1; }, 500ms);
        }));
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.20.2.1\n"};
    lab::Lan m_lan;
    const lab::Node& m_host = m_lan.node("host1");
    const lab::Node& m_display = m_lan.node("display");
    Addresses m_addresses;
    Recorder m_received;
    std::unique_ptr<net::UdpReceiver> m_tap = makeIn<net::UdpReceiver>(
        m_display, &m_received, net::transAddr("10.20.2.1"), endpoint("236.6.7.5", 6878), 1024);
    std::unique_ptr<MultiRadarClient> m_client = makeIn<MultiRadarClient>(m_display);
};

TEST_F(Discovery, HostsAreListedWithTheEndpointsOfTheirIdAndTheirOwn) {
    const auto planned = serve(m_host, "Planned", 17, 2);
    RadarAddress images{};
    images.imageStream = {net::transAddr("239.1.1.1"), net::HtoNs(111), 0};
    const auto own = makeIn<HostServer>(m_host, "Own", std::uint8_t{18}, images);
    expectListed("Planned");
    EXPECT_EQ(text(m_client->getAddress("Planned", 0)->imageStream), "236.6.7.51:6035");
    EXPECT_EQ(text(m_client->getAddress("Planned", 0)->imageOriginal), "236.6.7.63:6047");
    expectListed("Own");
    EXPECT_EQ(text(m_client->getAddress("Own", 0)->imageStream), "239.1.1.1:111");
    EXPECT_EQ(text(m_client->getAddress("Own", 0)->arpaStream), "236.6.7.73:6073");
}

TEST_F(Discovery, HostAnswersTheExactQueryOnly) {
    const auto sender = makeIn<net::UdpSender>(m_display, "236.6.7.5", 6878, net::transAddr("10.20.2.1"), 0);
    const auto host = serve(m_host, "R", 16, 1);
    for (const std::string& message :
         {std::string("\x01"), std::string("\x01\xB1\x00", 3), std::string("\x01\xB2"),
          std::string("\x02\xB1"), std::string("\x01\xB1")})
        sender->sendData(message.data(), static_cast<int>(message.size()));
    EXPECT_EQ(m_received.nextBytes(), protocol::composeAnnouncement("R", 16, 1));
    EXPECT_FALSE(m_received.next(200ms)) << "one answer";
}

TEST_F(Discovery, HostIsRenumberedAndResetByTheDisplay) {
    net::detail::Timing timing;
    timing.objection = 200ms;
    net::detail::setTiming(timing);
    std::atomic<int> id = 0;
    std::atomic<bool> reset = false;
    const auto negotiator = makeIn<HostNegotiator>(
        m_host, [&] { reset = true; }, [&](std::uint8_t held) { id = held; });
    ASSERT_TRUE(negotiator->asyncLogin(20));
    ASSERT_TRUE(comesTrue([&] { return id == 20; }));
    const auto host = serve(m_host, "R", 20, 2);
    expectListed("R");
    id = 0;
    m_client->queryForAdjust("R");
    EXPECT_TRUE(comesTrue([&] { return id >= 16 && id <= 63; }));
    m_client->resetRadar();
    EXPECT_TRUE(comesTrue([&] { return reset.load(); }));
}

std::atomic<std::int64_t> s_time = 1000;

/// Ids 1 and 16 to 63, each on a host of its own.
class FullPlan : public Discovery {
protected:
    static constexpr int kHosts = 49;
    FullPlan() : Discovery(kHosts) {}
};

TEST_F(FullPlan, IsListedAfterOneQuery) {
    std::vector<std::unique_ptr<HostServer>> hosts;
    for (int number = 1; number <= kHosts; ++number)
        hosts.push_back(serve(m_lan.nodes()[static_cast<size_t>(number)], "radar " + std::to_string(number),
                              number == 1 ? 1 : number + 14, 2));
    net::detail::setClock([] { return s_time.load(); });
    for (int run = 0; run < 20; ++run) {
        s_time += 8; // empties the table
        m_client->query();
        EXPECT_TRUE(comesTrue([&] { return m_client->getRadar().size() == kHosts; }));
    }
}

/// A display that has to search, on eth1 of two interfaces, in short periods.
class Search : public testing::Test {
protected:
    Search() {
        net::detail::Timing timing;
        timing.search = {500ms, 200ms, 2000ms, 300ms};
        net::detail::setTiming(timing);
    }
    ~Search() override { net::detail::setTiming({}); }

    const ProfileDirectory m_profile{"[Local]\nNetName = no such interface\n"};
    lab::Lan m_lan{{lab::radarHost(1), lab::display(2, 1)}};
    const lab::Node& m_host = m_lan.node("host1");
    const lab::Node& m_display = m_lan.node("display");
};

TEST_F(Search, SettlesOnTheAddressWhereARadarAnswersAndReportsItOnce) {
    Addresses addresses;
    const auto client = makeIn<MultiRadarClient>(m_display);
    client->addListener(&addresses);
    client->query(); // no sockets yet: nothing happens
    const auto host = serve(m_host, "R", 16, 1);
    ASSERT_TRUE(addresses.reaches(1));
    EXPECT_TRUE(comesTrue([&] {
        client->query();
        return client->getRadar() == std::vector<std::string>{"R"};
    }));
    EXPECT_THAT(addresses.all(), ElementsAre("10.20.2.1"));
}

TEST_F(Search, SettlesOnTheAddressThatReceivesBeaconsInBothPeriods) {
    const lab::Process beacons = m_host.start(
        {.command = {"sh", "-c",
                     "while printf aabbccdd; do sleep 0.2; done | socat -u - UDP-DATAGRAM:236.6.7.20:6720"}});
    Addresses addresses;
    const auto client = makeIn<MultiRadarClient>(m_display);
    client->addListener(&addresses);
    EXPECT_TRUE(addresses.reaches(1, 35s));
    EXPECT_THAT(addresses.all(), ElementsAre("10.20.2.1"));
}

TEST(HostServerDeathTest, WrongConfigurationEndsTheProcess) {
    for (const int id : {0, 2, 15, 64, 255}) {
        const auto number = static_cast<std::uint8_t>(id);
        EXPECT_EXIT((::dup2(2, 1), HostServer("R", number, 1U)), testing::KilledBySignal(SIGABRT),
                    "Error with Host id:" + std::to_string(id) +
                        "\n.*UdpSocket/hostserver.cpp.*Assertion `false' failed");
        EXPECT_DEATH((::dup2(2, 1), HostServer("R", number, RadarAddress{})),
                     "Error with Info Host id:" + std::to_string(id) + "\n");
    }
    for (const unsigned streams : {0U, 3U})
        EXPECT_DEATH(HostServer("R", 16, streams),
                     "Assertion `\\(streamCount ==1\\) \\|\\| \\(streamCount ==2\\)' failed");
    EXPECT_DEATH(HostServer(std::string(149, 'x').c_str(), 16, 1U), "Assertion");
}

} // namespace
