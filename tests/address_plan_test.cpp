#include "records.h"

#include <UdpSocket/detail/address_plan.h>

#include <gmock/gmock.h>

#include <set>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr plan::EndpointField kAnnounced[] = {&RadarAddress::imageStream, &RadarAddress::imageCtrl,
                                              &RadarAddress::imageState,  &RadarAddress::arpaStream,
                                              &RadarAddress::arpaCtrl,    &RadarAddress::arpaState};

TEST(AddressPlan, HostOneDiffersFromTheDefaultRecordInTwoPortsOnly) {
    const RadarAddress& record = plan::defaultRecord();
    EXPECT_EQ(text(record.imageStream), "236.6.7.8:6678");
    EXPECT_EQ(text(record.imageCtrl), "236.6.7.10:6680");
    EXPECT_EQ(text(record.imageState), "236.6.7.9:6679");
    EXPECT_EQ(text(record.arpaStream), "236.6.7.18:6688");
    EXPECT_EQ(text(record.arpaCtrl), "236.6.7.20:6690");
    EXPECT_EQ(text(record.arpaState), "236.6.7.19:6689");
    EXPECT_EQ(text(record.imageOriginal), "236.6.7.7:6677");
    for (unsigned i = 0; i < record.infoDev.size(); ++i) {
        EXPECT_EQ(text(record.infoDev[i]),
                  "236.6.11." + std::to_string(10 + i) + ":" + std::to_string(7600 + i));
    }
    EXPECT_EQ(bytes(record)[67], 0) << "the byte between the second and the third information device";
    EXPECT_EQ(bytes(record)[114], static_cast<char>(7609 >> 8));

    for (const plan::EndpointField field : kAnnounced) {
        const std::string announced = text(plan::announcedEndpoint(1, field, 0));
        if (field == &RadarAddress::imageStream)
            EXPECT_EQ(announced, "236.6.7.8:6878");
        else if (field == &RadarAddress::arpaState)
            EXPECT_EQ(announced, "236.6.7.19:6889");
        else
            EXPECT_EQ(announced, text(record.*field));
    }
}

TEST(AddressPlan, HostsFromSixteenUpwardsOwnBlocks) {
    EXPECT_EQ(text(plan::announcedEndpoint(16, &RadarAddress::imageStream, 0)), "236.6.7.35:6003");
    EXPECT_EQ(text(plan::announcedEndpoint(16, &RadarAddress::arpaState, 0)), "236.6.7.43:6011");
    EXPECT_EQ(text(plan::announcedEndpoint(17, &RadarAddress::imageStream, 0)), "236.6.7.51:6035");
    EXPECT_EQ(text(plan::announcedEndpoint(17, &RadarAddress::arpaState, 1)), "236.6.7.62:6046");
    EXPECT_EQ(text(plan::announcedEndpoint(30, &RadarAddress::imageStream, 0)), "236.6.8.3:6451");
    EXPECT_EQ(text(plan::announcedEndpoint(1, &RadarAddress::arpaState, 1)), "236.6.7.14:6862");

    std::set<std::string> used;
    for (std::uint8_t id = 16; id <= 63; ++id)
        for (const int stream : {0, 1}) {
            for (const plan::EndpointField field : kAnnounced)
                used.insert(text(plan::announcedEndpoint(id, field, stream)));
            used.insert(text(plan::getOriginalImageEp(id, static_cast<std::uint8_t>(stream))));
        }
    EXPECT_EQ(used.size(), 48U * 14U) << "two hosts or two streams share an endpoint";
}

TEST(AddressPlan, ComputesOriginalImageInfoDeviceAndDedicatedEndpoints) {
    EXPECT_EQ(text(plan::getOriginalImageEp(16, 0)), "236.6.7.47:6015");
    EXPECT_EQ(text(plan::getOriginalImageEp(16, 1)), "236.6.7.48:6016");
    EXPECT_EQ(text(plan::getOriginalImageEp(17, 0)), "236.6.7.63:6047");
    EXPECT_EQ(text(plan::getOriginalImageEp(1, 0)), "236.6.7.7:6677");
    EXPECT_EQ(text(plan::getOriginalImageEp(64, 1)), "236.6.7.16:6656");

    EXPECT_EQ(text(plan::getInfoDevBaseEp(16)), "236.6.11.234:7824");
    EXPECT_EQ(text(plan::getInfoDevBaseEp(63)), "236.6.17.202:9328");
    for (const std::uint8_t id : std::initializer_list<std::uint8_t>{0, 1, 15, 64, 255})
        EXPECT_EQ(text(plan::getInfoDevBaseEp(id)), "236.6.11.10:7600");

    EXPECT_EQ(text(plan::getDedicatedBaseEp(0)), "234.5.6.7:34567");
    EXPECT_EQ(text(plan::getDedicatedBaseEp(255)), "234.5.38.230:42982");
    const RadarAddress dedicated = plan::dedicatedRecord(2);
    EXPECT_EQ(dedicated.isMulti, 1);
    EXPECT_EQ(dedicated.multiNum, 2);
    EXPECT_EQ(text(dedicated.imageStream), "234.5.6.73:34633");
    EXPECT_EQ(text(dedicated.imageState), "234.5.6.75:34635");
    EXPECT_EQ(text(dedicated.arpaStream), "234.5.6.79:34639");
    EXPECT_EQ(text(dedicated.imageOriginal), "234.5.6.85:34645");
    EXPECT_EQ(text(dedicated.infoDev[0]), "234.5.6.87:34647");
    EXPECT_EQ(text(dedicated.infoDev[9]), "234.5.6.96:34656");
}

TEST(AddressPlan, ArpaPortsLeadBackToHostIds) {
    struct {
        std::uint16_t port;
        int id;
        std::string printed;
    } const cases[] = {
        {6688, 1, ""},
        {6009, 16, ""},
        {6041, 17, ""},
        {7513, 63, ""},
        {7545, 0, "streamPort2MultiNum:id out of range[0x40]\n"},
        {6010, 16, "streamPort2MultiNum: port not match[6010]\n"},
        {6008, 0, "streamPort2MultiNum: port not match[6008]\nstreamPort2MultiNum:id out of range[0xf]\n"},
        {0, 0, "streamPort2MultiNum: port not match[0]\nstreamPort2MultiNum:id out of range[0x54]\n"},
    };
    for (const auto& [port, id, printed] : cases) {
        CaptureStdout();
        EXPECT_EQ(plan::streamPort2MultiNum(port), id) << port;
        EXPECT_EQ(GetCapturedStdout(), printed) << port;
    }
    for (std::uint8_t id = 16; id <= 63; ++id)
        EXPECT_EQ(plan::streamPort2MultiNum(
                      net::NtoHs(plan::announcedEndpoint(id, &RadarAddress::arpaStream, 0).port)),
                  id);
}

} // namespace
