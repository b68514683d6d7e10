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

// protocol_test.cpp compares the plan with the tables of docs/protocol.md; here is what these do not show.

TEST(AddressPlan, RecordsLieInMemoryAsApplicationsReadThem) {
    const RadarAddress& record = plan::defaultRecord();
    EXPECT_EQ(text(record.imageStream), "236.6.7.8:6678") << "6878 when host 1 announces it";
    EXPECT_EQ(text(record.arpaState), "236.6.7.19:6689") << "6889";
    for (unsigned i = 0; i < record.infoDev.size(); ++i) {
        EXPECT_EQ(text(record.infoDev[i]),
                  "236.6.11." + std::to_string(10 + i) + ":" + std::to_string(7600 + i));
    }
    EXPECT_EQ(bytes(record)[67], 0) << "the byte between the second and the third information device";
    EXPECT_EQ(bytes(record)[114], static_cast<char>(7609 >> 8));
    const RadarAddress dedicated = plan::dedicatedRecord(2);
    EXPECT_EQ(dedicated.isMulti, 1);
    EXPECT_EQ(dedicated.multiNum, 2);
    EXPECT_EQ(text(dedicated.imageState), "234.5.6.75:34635");
    EXPECT_EQ(text(dedicated.infoDev[9]), "234.5.6.96:34656");
}

TEST(AddressPlan, HostsFromSixteenUpwardsOwnBlocks) {
    std::set<std::string> used;
    for (std::uint8_t id = 16; id <= 63; ++id)
        for (const int stream : {0, 1}) {
            for (const plan::EndpointField field : kAnnounced)
                used.insert(text(plan::announcedEndpoint(id, field, stream)));
            used.insert(text(plan::getOriginalImageEp(id, static_cast<std::uint8_t>(stream))));
        }
    EXPECT_EQ(used.size(), 48U * 14U) << "two hosts or two streams share an endpoint";
}

TEST(AddressPlan, HostIdsOutsideThePlanHaveEndpointsAllTheSame) {
    EXPECT_EQ(text(plan::getOriginalImageEp(64, 1)), "236.6.7.16:6656");
    for (const std::uint8_t id : std::initializer_list<std::uint8_t>{0, 1, 15, 64, 255})
        EXPECT_EQ(text(plan::getInfoDevBaseEp(id)), "236.6.11.10:7600");
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
