// The example host, written from docs/protocol.md without code of the library, beside the library's hosts.

#include "profile_directory.h"
#include "recorder.h"
#include "records.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>

#include <lab/lan.h>

namespace {

std::string name(plan::EndpointField field) {
    constexpr std::pair<plan::EndpointField, const char*> kNames[] = {
        {&RadarAddress::imageStream, "image"},      {&RadarAddress::imageCtrl, "image control"},
        {&RadarAddress::imageState, "image state"}, {&RadarAddress::imageOriginal, "original image"},
        {&RadarAddress::arpaStream, "ARPA"},        {&RadarAddress::arpaCtrl, "ARPA control"},
        {&RadarAddress::arpaState, "ARPA state"}};
    return std::ranges::find(kNames, field, &std::pair<plan::EndpointField, const char*>::first)->second;
}

TEST(ProtocolPage, NumbersMatchTheCode) {
    const std::string page(std::istreambuf_iterator<char>(std::ifstream(PROTOCOL_PAGE).rdbuf()), {});
    const auto hasRow = [&](const auto&... cells) { // to where its last cell goes on in words
        std::ostringstream row;
        ((row << " | " << cells), ...);
        EXPECT_THAT(page, testing::HasSubstr("\n" + row.str().substr(1)));
    };
    const auto hasPlaces = [&](const auto& places, const std::string& kind) {
        for (const auto& [field, stream, offset] : places)
            hasRow(offset, 6,
                   kind + (kind == "stream" ? " " + std::to_string(stream) : "") + " " + name(field));
    };
    for (const auto& [field, words] : {std::pair{wire::kCode, "code"},
                                       {wire::kName, "name"},
                                       {wire::kRadarIp, "the radar's own"},
                                       {wire::kExtended, "extended"},
                                       {wire::kRadarNumber, "dedicated number"},
                                       {wire::kTcpOffered, "TCP service"},
                                       {wire::kTcpKinds, "a kind byte"},
                                       {wire::kUserValid, "user endpoints"}})
        hasRow(field.offset, field.width, words);
    hasPlaces(wire::kShortEndpoints, "stream");
    hasPlaces(wire::kLongEndpoints, "stream");
    hasPlaces(wire::kTcpEndpoints, "TCP");
    hasPlaces(wire::kUserEndpoints, "user");
    for (const wire::Group& group : {wire::kDiscovery, wire::kNegotiation, wire::kBeacon})
        hasRow(group.address, group.port);

    for (const plan::Row& planned : plan::kRows) {
        const auto of = [&](std::uint8_t id) {
            return text(plan::announcedEndpoint(id, planned.field, planned.stream));
        };
        hasRow("stream " + std::to_string(planned.stream) + " " + name(planned.field), planned.offset, of(1),
               of(16), of(17), of(30), of(63));
        if (planned.displayPort != 0)
            hasRow(name(planned.field), text(plan::defaultRecord().*planned.field));
    }
    for (const std::uint8_t id : std::initializer_list<std::uint8_t>{1, 16, 17, 30, 63}) {
        InfoDeviceEndpoints devices;
        plan::fillInfoDevices(devices, plan::getInfoDevBaseEp(id));
        hasRow(int{id}, text(devices[0]), text(devices[9]));
    }
    for (const std::uint8_t number : std::initializer_list<std::uint8_t>{0, 1, 2, 255}) {
        const RadarAddress record = plan::dedicatedRecord(number);
        hasRow(int{number}, text(record.imageStream), text(record.arpaStream), text(record.imageOriginal),
               text(record.infoDev[0]));
    }
}

const std::string kImport = "import sys; sys.path.append('" EXAMPLES "'); import host\n";

TEST(ExampleHost, AnnouncesByteForByteWhatTheLibraryAnnounces) {
    lab::Process python(
        {.command = {"python3", "-Bc",
                     kImport + "for host_id in 1, *host.DRAWN_IDS:\n"
                               "    for streams in 1, 2:\n"
                               "        print(*host.announcement(b'sixteen letters.', host_id, streams))"}});
    for (std::uint8_t id = 1; id <= 63; id = id == 1 ? 16 : id + 1)
        for (const unsigned streams : {1U, 2U}) {
            std::string numbers;
            for (const char byte : protocol::composeAnnouncement("sixteen letters.", id, streams))
                numbers += (numbers.empty() ? "" : " ") + std::to_string(static_cast<std::uint8_t>(byte));
            ASSERT_EQ(python.nextLine(30s), numbers) << int{id} << " with " << streams << " streams";
        }
}

TEST(ExampleHost, NegotiatesWithTheLibrarysHostsAndDisplays) {
    auto timing = net::detail::timing();
    timing.objection = 500ms;
    net::detail::setTiming(timing);
    const auto drawn = testing::AllOf(testing::Ge(16), testing::Le(63));
    const ProfileDirectory profile("[Local]\nIP = 10.20.2.1\n");
    lab::Lan lan({lab::radarHost(1), lab::radarHost(2), lab::display(1)});
    const auto start = [&](const char* name) {
        return lan.node("host1").start(
            {.command = {"python3", "-Bc", kImport + "host.OBJECTION_TIME = 0.5; host.main()", "--name", name,
                         "--id", "1", "--streams", "2", "--local", "10.20.1.1"}});
    };
    const auto servedId = [](lab::Process& host) {
        const std::string words = "serving as host id ";
        return std::stoi(host.lineWith(words, 30s).value_or(words + "0").substr(words.size()));
    };
    const Output output;
    lab::Process first = start("R");
    EXPECT_EQ(servedId(first), 1);
    std::atomic<int> resets = 0;
    const auto newcomer = makeIn<HostNegotiator>(
        lan.node("host2"), [&] { ++resets; }, nullptr);
    EXPECT_THAT(newcomer->syncLogin(1), drawn) << "the holder of id 1 objects";

    const auto client = makeIn<MultiRadarClient>(lan.node("display"));
    const auto isListedWith = [&](int id) {
        return comesTrue([&] {
            client->query();
            const RadarAddress* const record = client->getAddress("R", 0);
            return record != nullptr && plan::hostIdOf(*record) == id;
        });
    };
    ASSERT_TRUE(isListedWith(1));
    client->queryForAdjust("R");
    const int id = servedId(first);
    EXPECT_THAT(id, drawn);
    EXPECT_TRUE(isListedWith(id));

    const auto holder = makeIn<HostNegotiator>(lan.node("host2"), nullptr, nullptr);
    EXPECT_EQ(holder->syncLogin(1), 1);
    lab::Process second = start("S");
    EXPECT_THAT(servedId(second), drawn) << "gives way to an objection";
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(30s), 0);
    EXPECT_EQ(second.stop(), 0);
    EXPECT_THAT(output.err(), testing::Not(testing::HasSubstr("HostNegotiator")));
    EXPECT_EQ(resets, 0) << "nobody has asked for one";
}

} // namespace
