// The example host, written from docs/protocol.md without code of the library, beside the library's hosts.

#include "profile_directory.h"
#include "recorder.h"
#include "records.h"
#include "wait.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>

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

TEST(ExampleHost, AnnouncesByteForByteWhatTheLibraryAnnounces) {
    lab::Process python(
        {.command = {"python3", "-c",
                     "import runpy\n"
                     "host = runpy.run_path('" HOST_PY "')\n"
                     "for name in b'A', b'sixteen letters.':\n"
                     "    for host_id in 1, *host['DRAWN_IDS']:\n"
                     "        for streams in 1, 2:\n"
                     "            print(host['announcement'](name, host_id, streams).hex())"}});
    for (const std::string announced : {"A", "sixteen letters."})
        for (std::uint8_t id = 1; id <= 63; id = id == 1 ? 16 : id + 1)
            for (const unsigned streams : {1U, 2U}) {
                std::string hex;
                for (const char byte : protocol::composeAnnouncement(announced, id, streams))
                    hex += {"0123456789abcdef"[byte >> 4 & 0xF], "0123456789abcdef"[byte & 0xF]};
                ASSERT_EQ(python.nextLine(30s), hex) << int{id} << " with " << streams << " streams";
            }
}

int servedId(lab::Process& host) {
    const std::string words = "serving as host id ";
    return std::stoi(host.lineWith(words, 30s).value_or(words + "0").substr(words.size()));
}

TEST(ExampleHost, NegotiatesWithTheLibrarysHostsAndDisplays) {
    const auto drawn = AllOf(Ge(16), Le(63));
    const ProfileDirectory profile("[Local]\nIP = 10.20.2.1\n");
    lab::Lan lan({lab::radarHost(1), lab::radarHost(2), lab::display(1)});
    lab::Process first = lan.node("host1").start({.command = {"python3", HOST_PY, "--name", "R", "--id", "1",
                                                              "--streams", "2", "--local", "10.20.1.1"}});
    EXPECT_EQ(servedId(first), 1);
    const auto rival = makeIn<HostNegotiator>(lan.node("host2"), nullptr, nullptr);
    EXPECT_THAT(rival->syncLogin(1), drawn) << "the holder of id 1 objects";

    const auto client = makeIn<MultiRadarClient>(lan.node("display"));
    const auto listedWith = [&](int id) {
        return comesTrue([&] {
            client->query();
            return comesTrue(
                [&] {
                    const RadarAddress* const record = client->getAddress("R", 0);
                    return record != nullptr && plan::hostIdOf(*record) == id;
                },
                500ms);
        });
    };
    ASSERT_TRUE(listedWith(1));
    client->queryForAdjust("R");
    const int id = servedId(first);
    EXPECT_THAT(id, drawn);
    EXPECT_TRUE(listedWith(id));
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(30s), 0);

    net::detail::Timing timing;
    timing.objection = 100ms; // nobody objects
    net::detail::setTiming(timing);
    const auto holder = makeIn<HostNegotiator>(lan.node("host2"), nullptr, nullptr);
    EXPECT_EQ(holder->syncLogin(1), 1);
    net::detail::setTiming({});
    lab::Process second =
        lan.node("host1").start({.command = {"python3", HOST_PY, "--name", "S", "--id", "1"}});
    EXPECT_THAT(servedId(second), drawn) << "gives way to an objection";
    EXPECT_EQ(second.stop(), 0);
}

} // namespace
