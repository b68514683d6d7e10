// The example host, written from docs/protocol.md without code of the library, beside the library's hosts.

#include "profile_directory.h"
#include "recorder.h"
#include "records.h"
#include "wait.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/wire.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <set>

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

std::string name(plan::EndpointField field) {
    for (const auto& [candidate, words] : {std::pair{&RadarAddress::imageStream, "image"},
                                           {&RadarAddress::imageCtrl, "image control"},
                                           {&RadarAddress::imageState, "image state"},
                                           {&RadarAddress::arpaStream, "ARPA"},
                                           {&RadarAddress::arpaCtrl, "ARPA control"},
                                           {&RadarAddress::arpaState, "ARPA state"}})
        if (candidate == field)
            return words;
    return "original image";
}

std::string name(plan::EndpointField field, int stream) {
    return "stream " + std::to_string(stream) + " " + name(field);
}

/// The beginning of a table's row.
std::string row(const std::vector<std::string>& cells) {
    std::string result = "\n";
    for (const std::string& cell : cells)
        result += "| " + cell + (&cell == &cells.back() ? "" : " ");
    return result;
}

std::string row(const wire::Field& field, const std::string& words) {
    return row({std::to_string(field.offset), std::to_string(field.width), words});
}

TEST(ProtocolPage, NumbersMatchTheCode) {
    std::ifstream file(PROTOCOL_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    const std::size_t longForm = page.find("Endpoints of the long form");
    const std::size_t extension = page.find("### The extension");
    ASSERT_NE(extension, std::string::npos);

    for (const auto& place : wire::kShortEndpoints)
        EXPECT_THAT(page.substr(0, longForm),
                    HasSubstr(row({place.offset, 6}, name(place.field, place.stream))));
    for (const auto& place : wire::kLongEndpoints)
        EXPECT_THAT(page.substr(longForm, extension - longForm),
                    HasSubstr(row({place.offset, 6}, name(place.field, place.stream))));
    std::vector<std::string> rows = {row(wire::kCode, "code"),
                                     row(wire::kName, "name"),
                                     row(wire::kRadarIp, "the radar's own"),
                                     row(wire::kExtended, "extended"),
                                     row(wire::kRadarNumber, "dedicated number"),
                                     row(wire::kTcpOffered, "TCP service"),
                                     row(wire::kTcpKinds, "a kind byte"),
                                     row(wire::kUserValid, "user endpoints")};
    for (const auto& place : wire::kTcpEndpoints)
        rows.push_back(row({place.offset, 6}, "TCP " + name(place.field)));
    for (const auto& place : wire::kUserEndpoints)
        rows.push_back(row({place.offset, 6}, "user " + name(place.field)));
    for (const wire::Group& group : {wire::kDiscovery, wire::kNegotiation, wire::kBeacon})
        rows.push_back(row({group.address, std::to_string(group.port)}));

    constexpr std::array<std::uint8_t, 5> kIds = {1, 16, 17, 30, 63}; // of the page's tables
    for (const plan::Row& planned : plan::kRows) {
        std::vector<std::string> cells = {name(planned.field, planned.stream),
                                          std::to_string(planned.offset)};
        for (const std::uint8_t id : kIds)
            cells.push_back(text(plan::announcedEndpoint(id, planned.field, planned.stream)));
        rows.push_back(row(cells));
        if (planned.displayPort != 0)
            rows.push_back(row({name(planned.field), text(plan::defaultRecord().*planned.field)}));
    }
    for (const std::uint8_t id : kIds) {
        InfoDeviceEndpoints devices;
        plan::fillInfoDevices(devices, plan::getInfoDevBaseEp(id));
        rows.push_back(row({std::to_string(id), text(devices[0]), text(devices[9])}));
    }
    constexpr std::array<std::uint8_t, 4> kNumbers = {0, 1, 2, 255};
    for (const std::uint8_t number : kNumbers) {
        const RadarAddress record = plan::dedicatedRecord(number);
        rows.push_back(row({std::to_string(number), text(record.imageStream), text(record.arpaStream),
                            text(record.imageOriginal), text(record.infoDev[0])}));
    }
    for (const std::string& expected : rows)
        EXPECT_THAT(page, HasSubstr(expected));
}

/// A display, and computers for hosts.
class ForeignHost : public testing::Test {
protected:
    ForeignHost() {
        const lab::Inside inside = m_lan.node("display").enter();
        m_client = std::make_unique<MultiRadarClient>();
        m_tap = std::make_unique<net::UdpReceiver>(&m_received, net::transAddr("10.20.2.1"), "236.6.7.5",
                                                   6878, 1024);
    }
    lab::Process start(const lab::Node& node, const std::string& name, int id, int streams,
                       const std::string& local = "0.0.0.0") {
        return node.start({.command = {"python3", HOST_PY, "--name", name, "--id", std::to_string(id),
                                       "--streams", std::to_string(streams), "--local", local}});
    }
    static int servedId(lab::Process& host) {
        const std::string words = "serving as host id ";
        const std::string line = host.lineWith(words, 30s).value_or(words + "0");
        return std::stoi(line.substr(words.size()));
    }
    bool lists(const std::vector<std::string>& names) {
        return comesTrue([&] {
            m_client->query();
            return comesTrue([&] { return m_client->getRadar() == names; }, 500ms);
        });
    }
    int listedId(const char* name) {
        m_client->query();
        return plan::hostIdOf(*m_client->getAddress(name, 0));
    }
    std::unique_ptr<HostNegotiator> makeNegotiator(const lab::Node& node) {
        const lab::Inside inside = node.enter();
        return std::make_unique<HostNegotiator>(nullptr, nullptr);
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.20.2.1\n"};
    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2), lab::radarHost(3), lab::display(1)}};
    Recorder m_received;
    std::unique_ptr<net::UdpReceiver> m_tap;
    std::unique_ptr<MultiRadarClient> m_client;
};

TEST_F(ForeignHost, AnnouncesByteForByteWhatTheLibraryAnnounces) {
    const std::vector<std::pair<std::string, int>> radars = {{"A", 1}, {"sixteen letters.", 63}};
    for (const int streams : {1, 2}) {
        std::vector<lab::Process> foreign;
        for (const auto& [name, id] : radars)
            foreign.push_back(start(m_lan.nodes()[foreign.size()], name, id, streams));
        for (std::size_t i = 0; i < radars.size(); ++i)
            EXPECT_EQ(servedId(foreign[i]), radars[i].second);
        EXPECT_TRUE(lists({"A", "sixteen letters."}));

        std::vector<std::unique_ptr<HostServer>> own;
        for (const auto& [name, id] : radars) {
            const lab::Inside inside = m_lan.nodes()[own.size()].enter();
            own.push_back(std::make_unique<HostServer>(name.c_str(), static_cast<std::uint8_t>(id),
                                                       static_cast<std::uint32_t>(streams)));
        }
        m_client->query();
        std::map<std::string, std::set<std::string>> announcements; // and where each came from
        const std::size_t length = (streams == 1 ? wire::kShortAnnouncement : wire::kLongAnnouncement).length;
        const auto allHaveCome = [&] {
            while (const auto datagram = m_received.next(0ms))
                if (datagram->bytes.size() == length)
                    announcements[datagram->bytes].insert(datagram->from);
            return std::ranges::count_if(announcements, [](const auto& entry) {
                       return entry.second.size() == 2;
                   }) == static_cast<std::ptrdiff_t>(radars.size());
        };
        EXPECT_TRUE(comesTrue(allHaveCome)) << streams << " streams";
        EXPECT_EQ(announcements.size(), radars.size()) << streams << " streams";

        for (std::size_t i = 0; i < foreign.size(); ++i) {
            foreign[i].signal(i % 2 == 0 ? SIGINT : SIGTERM);
            EXPECT_EQ(foreign[i].wait(30s), 0);
        }
    }
}

TEST_F(ForeignHost, NegotiatesWithTheLibrarysHostsAndDisplays) {
    const auto drawn = AllOf(Ge(16), Le(63));
    lab::Process first = start(m_lan.node("host1"), "R", 1, 2, "10.20.1.1");
    EXPECT_EQ(servedId(first), 1);
    EXPECT_THAT(makeNegotiator(m_lan.node("host2"))->syncLogin(1), drawn) << "the holder of id 1 objects";

    ASSERT_TRUE(lists({"R"}));
    m_client->queryForAdjust("R");
    const int id = servedId(first);
    EXPECT_THAT(id, drawn);
    EXPECT_TRUE(comesTrue([&] { return listedId("R") == id; }));

    net::detail::Timing timing;
    timing.objection = 100ms; // nobody objects
    net::detail::setTiming(timing);
    const auto holder = makeNegotiator(m_lan.node("host2"));
    EXPECT_EQ(holder->syncLogin(1), 1);
    net::detail::setTiming({});
    lab::Process second = start(m_lan.node("host3"), "S", 1, 1);
    EXPECT_THAT(servedId(second), drawn) << "gives way to an objection";
}

} // namespace
