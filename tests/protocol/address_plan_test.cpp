#include "../records.h"

#include <UdpSocket/protocol/address_plan.h>

#include <gmock/gmock.h>

namespace {

// What the tables of docs/protocol.md and examples/host.py do not show; protocol_test.cpp compares the plan
// with both.

TEST(AddressPlan, DefaultRecordHasInformationDevices) {
    EXPECT_EQ(text(plan::defaultRecord().infoDev[1]), "236.6.11.11:7601");
    EXPECT_EQ(text(plan::defaultRecord().infoDev[2]), "236.6.11.12:7602");
}

TEST(AddressPlan, ArpaPortsDetermineHostIds) {
    const struct {
        std::uint16_t port;
        std::uint8_t id;
        bool matches;
        std::uint8_t computed;
    } cases[] = {
        {6688, 1, true, 1},    {6009, 16, true, 16},  {6041, 17, true, 17},  {7513, 63, true, 63},
        {7545, 0, true, 0x40}, {6010, 16, false, 16}, {6008, 0, false, 0xF}, {0, 0, false, 0x54},
    };
    for (const auto& [port, id, matches, computed] : cases) {
        EXPECT_THAT(plan::hostNumber(port), testing::FieldsAre(id, matches, computed)) << port;
        RadarAddress record{};
        record.arpaStream.port = net::HtoNs(port);
        EXPECT_EQ(plan::hostIdOf(record), matches ? id : 0) << port;
    }
}

} // namespace
