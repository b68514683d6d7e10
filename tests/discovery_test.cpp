#include "profile_directory.h"
#include "recorder.h"
#include "records.h"

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>

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
    ~Discovery() override { net::detail::setClock(nullptr); }

    void becomesListed(const std::string& name) {
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
    Recorder m_wire;
    std::unique_ptr<net::UdpReceiver> m_tap = makeIn<net::UdpReceiver>(
        m_display, &m_wire, net::transAddr("10.20.2.1"), endpoint("236.6.7.5", 6878), 1024);
    std::unique_ptr<MultiRadarClient> m_client = makeIn<MultiRadarClient>(m_display);
};

/// The address plan and the two datagrams, written down a second time.
const struct {
    std::size_t inShort; // position in the datagram, 0 = absent
    std::size_t inLong;
    plan::EndpointField field; // null: not handed out
    int offset;                // in the block of a host, but for host 1
    const char* groupOfHostOne;
    unsigned short portOfHostOne;
} kEndpoints[] = {
    {88, 88, &RadarAddress::imageStream, 0, "236.6.7.8", 6878},
    {98, 98, &RadarAddress::imageCtrl, 1, "236.6.7.10", 6680},
    {108, 108, &RadarAddress::imageState, 2, "236.6.7.9", 6679},
    {0, 124, nullptr, 3, "236.6.7.13", 6657},
    {0, 134, nullptr, 4, "236.6.7.14", 6658},
    {0, 144, nullptr, 5, "236.6.7.15", 6659},
    {124, 160, &RadarAddress::arpaStream, 6, "236.6.7.18", 6688},
    {134, 170, &RadarAddress::arpaCtrl, 7, "236.6.7.20", 6690},
    {144, 180, &RadarAddress::arpaState, 8, "236.6.7.19", 6889},
    {0, 196, nullptr, 9, "236.6.7.12", 6660},
    {0, 206, nullptr, 10, "236.6.7.13", 6661},
    {0, 216, nullptr, 11, "236.6.7.14", 6862},
};

NetAddress expectedEndpoint(int id, int offset, const char* groupOfHostOne, unsigned short portOfHostOne) {
    if (id == 1)
        return endpoint(groupOfHostOne, portOfHostOne);
    const int address = 35 + 16 * (id - 16) + offset;
    const std::string group =
        "236.6." + std::to_string(7 + address / 256) + "." + std::to_string(address % 256);
    return endpoint(group.c_str(), static_cast<unsigned short>(6003 + 32 * (id - 16) + offset));
}

TEST_F(Discovery, WhatEveryHostAnnouncesIsWhatTheDisplayHandsOut) {
    for (int id = 1; id <= 63; id = id == 1 ? 16 : id + 1)
        for (const unsigned streams : {1U, 2U}) {
            const std::string name = "R" + std::to_string(id) + "/" + std::to_string(streams);
            SCOPED_TRACE(name);
            const auto host = serve(m_host, name, id, streams);
            becomesListed(name);
            const RadarAddress record = *m_client->getAddress(name.c_str(), 0);
            std::string expected(streams == 1 ? 150 : 222, '\0');
            expected.replace(0, 2, "\x01\xB2").replace(2, name.size(), name);
            for (const auto& [inShort, inLong, field, offset, group, port] : kEndpoints) {
                const NetAddress place = expectedEndpoint(id, offset, group, port);
                if (const auto position = streams == 1 ? inShort : inLong)
                    expected.replace(position, 6, reinterpret_cast<const char*>(&place), 6);
                if (field != nullptr) {
                    EXPECT_EQ(text(record.*field), text(place));
                }
            }
            EXPECT_EQ(text(record.imageOriginal),
                      streams == 1 ? "0.0.0.0:0" : text(expectedEndpoint(id, 12, "236.6.7.7", 6677)));
            EXPECT_EQ(plan::streamPort2MultiNum(net::NtoHs(record.arpaStream.port)), id);
            // behind what another query may have brought of the host before
            EXPECT_TRUE(comesTrue([&] { return m_wire.nextBytes() == expected; }));
        }
}

TEST_F(Discovery, HostWithEndpointsOfItsOwnAnnouncesItsImageEndpoints) {
    RadarAddress own{};
    own.imageStream = {net::transAddr("239.1.1.1"), net::HtoNs(111), 2};
    own.imageState = {net::transAddr("239.1.1.3"), net::HtoNs(113), 0};
    own.arpaStream = {net::transAddr("239.1.1.4"), net::HtoNs(114), 0};
    const auto host = makeIn<HostServer>(m_host, "Own", std::uint8_t{17}, own);
    becomesListed("Own");
    const RadarAddress record = *m_client->getAddress("Own", 0);
    EXPECT_EQ(text(record.imageStream), "239.1.1.1:111");
    EXPECT_EQ(record.imageStream.type, 0) << "kinds are not announced";
    EXPECT_EQ(text(record.imageCtrl), "0.0.0.0:0");
    EXPECT_EQ(text(record.imageState), "239.1.1.3:113");
    EXPECT_EQ(text(record.arpaStream), "236.6.7.57:6041");
}

TEST_F(Discovery, HostAnswersTheExactQueryOnlyAndCutsLongNames) {
    const auto asks = makeIn<net::UdpSender>(m_display, "236.6.7.5", 6878, net::transAddr("10.20.2.1"), 0);
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    const auto host = serve(m_host, letters, 16, 1);
    for (const std::string& message :
         {std::string("\x01"), std::string("\x01\xB1\x00", 3), std::string("\x01\xB2"),
          std::string("\x02\xB1"), std::string("\x01\xB1")})
        asks->sendData(message.data(), static_cast<int>(message.size()));
    const std::string answer = m_wire.nextBytes();
    ASSERT_EQ(answer.size(), 150U);
    EXPECT_EQ(answer.substr(2, 26), letters.substr(0, 16) + std::string(4, '\0') + letters.substr(20));
    EXPECT_FALSE(m_wire.next(200ms)) << "one answer";
    becomesListed(letters.substr(0, 16));
}

TEST_F(Discovery, HostIsRenumberedAndResetByTheDisplay) {
    std::atomic<int> id = 0;
    std::atomic<bool> reset = false;
    const auto negotiator = makeIn<HostNegotiator>(
        m_host, [&] { reset = true; }, [&](std::uint8_t held) { id = held; });
    ASSERT_TRUE(negotiator->asyncLogin(20));
    ASSERT_TRUE(comesTrue([&] { return id == 20; }));
    const auto host = serve(m_host, "R", 20, 2);
    becomesListed("R");
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

/// Where a display that has to search gets to, with what it hears.
std::vector<std::string> found(const lab::Node& display, size_t count, std::chrono::seconds patience) {
    Addresses addresses;
    const auto client = makeIn<MultiRadarClient>(display);
    client->addListener(&addresses);
    addresses.reaches(count, patience);
    return addresses.all();
}

/// A display that has to search, on eth1 of two interfaces.
class Search : public testing::Test {
protected:
    const ProfileDirectory m_profile{"[Local]\nNetName = no such interface\n"};
    lab::Lan m_lan{{lab::radarHost(1), lab::display(2, 1)}};
    const lab::Node& m_host = m_lan.node("host1");
    const lab::Node& m_display = m_lan.node("display");

    /// Sends to the beacon group five times a second.
    lab::Process beacon(const std::string& marker, int times) {
        return m_host.start(
            {.command = {"sh", "-c",
                         "for i in $(seq " + std::to_string(times) + "); do printf " + marker +
                             "; sleep 0.2; done | socat -u - UDP-DATAGRAM:236.6.7.20:6720"}});
    }
};

TEST_F(Search, SettlesWhereARadarAnswersAndTellsItOnce) {
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
    EXPECT_FALSE(addresses.reaches(2, 12s)) << "confirmed by the next search";
    EXPECT_THAT(addresses.all(), ElementsAre("10.20.2.1"));
}

TEST_F(Search, SettlesWhereBeaconsAreHeardTwice) {
    const lab::Process beacons = beacon("aabbccdd", 200);
    EXPECT_THAT(found(m_display, 1, 35s), ElementsAre("10.20.2.1"));
}

TEST_F(Search, IsNotMisledByOtherDatagramsOrASingleBeaconPeriod) {
    const lab::Process other = beacon("aabbccde", 50);
    const lab::Process once = beacon("aabbccdd", 2);
    EXPECT_THAT(found(m_display, 1, 9s), ElementsAre());
}

TEST(SearchOnOneLan, ReportsEveryAddressThatHearsARadarInAscendingOrder) {
    const ProfileDirectory profile;
    lab::Lan lan({lab::radarHost(1), {"display", {{"10.20.3.2/16"}, {"10.20.3.1/16"}}}});
    const auto host = serve(lan.node("host1"), "R", 16, 1);
    EXPECT_THAT(found(lan.node("display"), 2, 35s), ElementsAre("10.20.3.1", "10.20.3.2"));
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
