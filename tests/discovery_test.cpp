#include "profile_directory.h"
#include "recorder.h"
#include "records.h"
#include "wait.h"

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/clock.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cstring>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

/// What an application hears of the local address.
class Addresses : public iMultiRadarCheckerListener {
public:
    void OnLocalIpChanged(unsigned int localIp) override {
        std::lock_guard lock(m_mutex);
        m_heard.emplace_back(net::transAddr(localIp));
    }
    std::vector<std::string> heard() const {
        std::lock_guard lock(m_mutex);
        return m_heard;
    }

private:
    mutable std::mutex m_mutex; // guards m_heard
    std::vector<std::string> m_heard;
};

std::unique_ptr<HostServer> serve(const lab::Node& node, const std::string& name, std::uint8_t id,
                                  std::uint32_t streams) {
    const lab::Inside inside = node.enter();
    return std::make_unique<HostServer>(name.c_str(), id, streams);
}

std::unique_ptr<MultiRadarClient> makeClient(const lab::Node& node, Addresses& addresses) {
    const lab::Inside inside = node.enter();
    auto client = std::make_unique<MultiRadarClient>();
    client->addListener(&addresses);
    return client;
}

/// A display with a configured address, ready to query.
class Discovery : public testing::Test {
protected:
    explicit Discovery(std::vector<lab::NodePlan> hosts = {lab::radarHost(1)})
        : m_lan([&] {
              hosts.push_back(lab::display(1));
              return hosts;
          }()) {
        m_client = makeClient(m_lan.node("display"), m_addresses);
        EXPECT_TRUE(comesTrue([&] { return !m_addresses.heard().empty(); }));
    }
    ~Discovery() override { net::detail::setClock(nullptr); }

    bool isListed(const std::string& name) {
        m_client->query();
        return comesTrue([&] { return m_client->getRadarStreamCount(name.c_str()) == 1; }, 500ms);
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.20.2.1\n"};
    lab::Lan m_lan;
    Addresses m_addresses;
    std::unique_ptr<MultiRadarClient> m_client;
};

/// The endpoint of a host, written down a second time: block base plus offset, or host one's own.
std::string expectedEndpoint(int id, int offset, const char* ofHostOne) {
    if (id == 1)
        return ofHostOne;
    const int k = id - 16;
    const int address = 35 + 16 * k + offset;
    std::ostringstream text;
    text << "236.6." << 7 + address / 256 << "." << address % 256 << ":" << 6003 + 32 * k + offset;
    return text.str();
}

TEST_F(Discovery, WhatEveryHostAnnouncesIsWhatTheDisplayHandsOut) {
    Recorder wire;
    std::unique_ptr<net::UdpReceiver> tap;
    {
        const lab::Inside inside = m_lan.node("display").enter();
        tap = std::make_unique<net::UdpReceiver>(&wire, net::transAddr("10.20.2.1"), "236.6.7.5", 6878, 1024);
    }
    for (int id = 1; id <= 63; id = id == 1 ? 16 : id + 1)
        for (const unsigned streams : {1U, 2U}) {
            const std::string name = "R" + std::to_string(id) + "/" + std::to_string(streams);
            SCOPED_TRACE(name);
            const auto host = serve(m_lan.node("host1"), name, static_cast<std::uint8_t>(id), streams);
            ASSERT_TRUE(comesTrue([&] { return isListed(name); }));
            const RadarAddress record = *m_client->getAddress(name.c_str(), 0);
            EXPECT_EQ(text(record.imageStream), expectedEndpoint(id, 0, "236.6.7.8:6878"));
            EXPECT_EQ(text(record.imageCtrl), expectedEndpoint(id, 1, "236.6.7.10:6680"));
            EXPECT_EQ(text(record.imageState), expectedEndpoint(id, 2, "236.6.7.9:6679"));
            EXPECT_EQ(text(record.arpaStream), expectedEndpoint(id, 6, "236.6.7.18:6688"));
            EXPECT_EQ(text(record.arpaCtrl), expectedEndpoint(id, 7, "236.6.7.20:6690"));
            EXPECT_EQ(text(record.arpaState), expectedEndpoint(id, 8, "236.6.7.19:6889"));
            EXPECT_EQ(text(record.imageOriginal),
                      streams == 1 ? "0.0.0.0:0" : expectedEndpoint(id, 12, "236.6.7.7:6677"));
            EXPECT_EQ(plan::streamPort2MultiNum(net::NtoHs(record.arpaStream.port)), id);

            const std::string datagram = wire.nextBytes();
            ASSERT_EQ(datagram.size(), streams == 1 ? 150U : 222U);
            EXPECT_EQ(datagram.substr(0, 2 + name.size() + 1), "\x01\xB2" + name + '\0');
            const auto announced = [&](std::size_t position) {
                NetAddress endpoint;
                std::memcpy(&endpoint, datagram.data() + position, sizeof endpoint);
                return text(endpoint);
            };
            const std::size_t arpa = streams == 1 ? 124 : 160;
            EXPECT_EQ(announced(88), text(record.imageStream));
            EXPECT_EQ(announced(98), text(record.imageCtrl));
            EXPECT_EQ(announced(108), text(record.imageState));
            EXPECT_EQ(announced(arpa), text(record.arpaStream));
            EXPECT_EQ(announced(arpa + 10), text(record.arpaCtrl));
            EXPECT_EQ(announced(arpa + 20), text(record.arpaState));
            if (streams == 2) {
                EXPECT_EQ(announced(124), expectedEndpoint(id, 3, "236.6.7.13:6657"));
                EXPECT_EQ(announced(134), expectedEndpoint(id, 4, "236.6.7.14:6658"));
                EXPECT_EQ(announced(144), expectedEndpoint(id, 5, "236.6.7.15:6659"));
                EXPECT_EQ(announced(196), expectedEndpoint(id, 9, "236.6.7.12:6660"));
                EXPECT_EQ(announced(206), expectedEndpoint(id, 10, "236.6.7.13:6661"));
                EXPECT_EQ(announced(216), expectedEndpoint(id, 11, "236.6.7.14:6862"));
            }
            while (wire.next(0ms)) { // a query may have been sent again
            }
        }
}

TEST_F(Discovery, HostWithEndpointsOfItsOwnAnnouncesItsImageEndpoints) {
    RadarAddress own{};
    own.imageStream = {net::transAddr("239.1.1.1"), net::HtoNs(111), 2};
    own.imageState = {net::transAddr("239.1.1.3"), net::HtoNs(113), 0};
    own.arpaStream = {net::transAddr("239.1.1.4"), net::HtoNs(114), 0};
    std::unique_ptr<HostServer> host;
    {
        const lab::Inside inside = m_lan.node("host1").enter();
        host = std::make_unique<HostServer>("Own", static_cast<std::uint8_t>(17), own);
    }
    ASSERT_TRUE(comesTrue([&] { return isListed("Own"); }));
    const RadarAddress record = *m_client->getAddress("Own", 0);
    EXPECT_EQ(text(record.imageStream), "239.1.1.1:111");
    EXPECT_EQ(record.imageStream.type, 0) << "kinds are not announced";
    EXPECT_EQ(text(record.imageCtrl), "0.0.0.0:0");
    EXPECT_EQ(text(record.imageState), "239.1.1.3:113");
    EXPECT_EQ(text(record.arpaStream), "236.6.7.57:6041");
}

TEST_F(Discovery, HostAnswersTheExactQueryOnlyAndCutsLongNames) {
    Recorder wire;
    const lab::Inside inside = m_lan.node("display").enter();
    const net::UdpReceiver tap(&wire, net::transAddr("10.20.2.1"), "236.6.7.5", 6878, 1024);
    const net::UdpSender asks("236.6.7.5", 6878, net::transAddr("10.20.2.1"), 0);
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    const auto host = serve(m_lan.node("host1"), letters, 16, 1);
    for (const std::string& other : {std::string("\x01"), std::string("\x01\xB1\x00", 3),
                                     std::string("\x01\xB2"), std::string("\x02\xB1")})
        asks.sendData(other.data(), static_cast<int>(other.size()));
    EXPECT_FALSE(wire.next(200ms));
    asks.sendData("\x01\xB1", 2);
    const std::string answer = wire.nextBytes();
    ASSERT_EQ(answer.size(), 150U);
    EXPECT_EQ(answer.substr(2, 26), letters.substr(0, 16) + std::string(4, '\0') + letters.substr(20));
    EXPECT_EQ(answer.substr(94, 4) + answer.substr(130, 4), std::string(8, '\0')) << "gaps behind endpoints";
    EXPECT_TRUE(comesTrue([&] { return isListed(letters.substr(0, 16)); }));
}

TEST_F(Discovery, HostIsRenumberedAndResetByTheDisplay) {
    std::atomic<int> id = 0;
    std::atomic<bool> reset = false;
    std::unique_ptr<HostNegotiator> negotiator;
    {
        const lab::Inside inside = m_lan.node("host1").enter();
        negotiator =
            std::make_unique<HostNegotiator>([&] { reset = true; }, [&](std::uint8_t held) { id = held; });
    }
    ASSERT_TRUE(negotiator->asyncLogin(20));
    ASSERT_TRUE(comesTrue([&] { return id == 20; }));
    const auto host = serve(m_lan.node("host1"), "R", 20, 2);
    ASSERT_TRUE(comesTrue([&] { return isListed("R"); }));
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

    static std::vector<lab::NodePlan> everyHost() {
        std::vector<lab::NodePlan> hosts;
        for (int number = 1; number <= kHosts; ++number)
            hosts.push_back(lab::radarHost(number));
        return hosts;
    }
    FullPlan() : Discovery(everyHost()) {
        for (int number = 1; number <= kHosts; ++number)
            m_hosts.push_back(serve(m_lan.node("host" + std::to_string(number)),
                                    "radar " + std::to_string(number),
                                    static_cast<std::uint8_t>(number == 1 ? 1 : number + 14), 2));
    }
    std::vector<std::unique_ptr<HostServer>> m_hosts;
};

TEST_F(FullPlan, IsListedAfterOneQuery) {
    net::detail::setClock([] { return s_time.load(); });
    int complete = 0;
    constexpr int kRuns = 20;
    for (int run = 0; run < kRuns; ++run) {
        s_time += 8; // empties the table
        m_client->query();
        complete += comesTrue([&] { return m_client->getRadar().size() == kHosts; }, 2s) ? 1 : 0;
    }
    EXPECT_EQ(complete, kRuns);
}

/// A display that has to search, on eth1 of two interfaces.
class Search : public testing::Test {
protected:
    Search() : m_lan({lab::radarHost(1), lab::display(2, 1)}) {}

    const ProfileDirectory m_profile{"[Local]\nNetName = no such interface\n"};
    lab::Lan m_lan;
    Addresses m_addresses;
};

TEST_F(Search, SettlesWhereARadarAnswers) {
    const auto client = makeClient(m_lan.node("display"), m_addresses);
    client->query(); // no sockets yet: nothing happens
    const auto host = serve(m_lan.node("host1"), "R", 16, 1);
    ASSERT_TRUE(comesTrue([&] { return !m_addresses.heard().empty(); }, 20s));
    EXPECT_TRUE(comesTrue([&] {
        client->query();
        return client->getRadar() == std::vector<std::string>{"R"};
    }));
    EXPECT_FALSE(comesTrue([&] { return m_addresses.heard().size() > 1; }, 12s))
        << "confirmed, not told again";
    EXPECT_THAT(m_addresses.heard(), ElementsAre("10.20.2.1"));
}

/// Sends a datagram to the beacon group at intervals.
class Beacon {
public:
    Beacon(const lab::Node& node, std::string marker, std::chrono::milliseconds duration) {
        const lab::Inside inside = node.enter();
        m_sender = std::make_unique<net::UdpSender>("236.6.7.20", 6720, 0, 0);
        m_thread = std::thread([this, marker, duration] {
            comesTrue(
                [&] {
                    m_sender->sendData(marker.data(), static_cast<int>(marker.size()));
                    std::this_thread::sleep_for(200ms);
                    return m_stopped.load();
                },
                duration);
        });
    }
    ~Beacon() {
        m_stopped = true;
        m_thread.join();
    }

private:
    std::unique_ptr<net::UdpSender> m_sender;
    std::atomic<bool> m_stopped = false;
    std::thread m_thread;
};

TEST_F(Search, SettlesWhereBeaconsAreHeardTwice) {
    const Beacon beacon(m_lan.node("host1"), "aabbccdd", 30s);
    const auto client = makeClient(m_lan.node("display"), m_addresses);
    ASSERT_TRUE(comesTrue([&] { return !m_addresses.heard().empty(); }, 20s));
    EXPECT_THAT(m_addresses.heard(), ElementsAre("10.20.2.1"));
}

TEST_F(Search, IsNotMisledByOtherDatagramsOrASingleBeaconPeriod) {
    const Beacon other(m_lan.node("host1"), "aabbccde", 9s);
    const Beacon once(m_lan.node("host1"), std::string(150, 'x'), 1s);
    const auto client = makeClient(m_lan.node("display"), m_addresses);
    EXPECT_FALSE(comesTrue([&] { return !m_addresses.heard().empty(); }, 9s));
}

TEST(SearchOnOneLan, ReportsEveryAddressThatHearsARadarInAscendingOrder) {
    const ProfileDirectory profile;
    lab::Lan lan({lab::radarHost(1), {"display", {{"10.20.3.2/16"}, {"10.20.3.1/16"}}}});
    const auto host = serve(lan.node("host1"), "R", 16, 1);
    Addresses addresses;
    const auto client = makeClient(lan.node("display"), addresses);
    EXPECT_TRUE(comesTrue([&] { return addresses.heard().size() == 2; }, 20s));
    EXPECT_THAT(addresses.heard(), ElementsAre("10.20.3.1", "10.20.3.2"));
}

TEST(HostServerDeathTest, WrongConfigurationEndsTheProcess) {
    for (const int id : {0, 2, 15, 64, 255})
        EXPECT_EXIT(
            {
                ::dup2(2, 1);
                HostServer("R", static_cast<std::uint8_t>(id), 1U);
            },
            testing::KilledBySignal(SIGABRT),
            "Error with Host id:" + std::to_string(id) +
                "\n.*UdpSocket/hostserver.cpp.*Assertion `false' failed");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);
            HostServer("R", std::uint8_t{64}, RadarAddress{});
        },
        testing::KilledBySignal(SIGABRT), "Error with Info Host id:64\n");
    for (const unsigned streams : {0U, 3U})
        EXPECT_DEATH(HostServer("R", 16, streams),
                     "Assertion `\\(streamCount ==1\\) \\|\\| \\(streamCount ==2\\)' failed");
    EXPECT_DEATH(HostServer(std::string(149, 'x').c_str(), 16, 1U), "Assertion");
}

} // namespace
