#include "test.h"

#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/udpsocket.h>

#include <locale>

namespace {

TEST(Addresses, AreInNetworkOrderAndAllOnesForInvalidText) {
    EXPECT_EQ(net::transAddr("1.2.3.4"), net::HtoNl(0x01020304));
    EXPECT_EQ(net::transAddr("radar"), 0xFFFFFFFFU);
    EXPECT_STREQ(net::transAddr(net::transAddr("236.6.7.8")), "236.6.7.8");
}

TEST(Addresses, PrefixLengthsWrapOutsideZeroToThirtyTwo) {
    for (const auto& [prefix, mask] : {std::pair{24, "255.255.255.0"},
                                       {33, "128.0.0.0"},
                                       {64, "255.255.255.255"},
                                       {-1, "255.255.255.254"}})
        EXPECT_EQ(net::cidrToMask(prefix), mask) << prefix;
}

TEST(Addresses, NetmaskBitsAreCountedWithoutValidationInAnyLocale) {
    struct PointsBetweenThousands : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new PointsBetweenThousands));
    for (int prefix = 0; prefix <= 32; ++prefix)
        EXPECT_EQ(net::maskToCidr(net::cidrToMask(prefix)), prefix);
    for (const auto& [mask, bits] : {std::pair{"255/255-255x0", 24},
                                     {"0.256.0.0", 1}, // 256 spills into the first number
                                     {"255.255", 16},
                                     {"99999999999.255.255.255", 0},
                                     {"mask", 0}})
        EXPECT_EQ(net::maskToCidr(mask), bits) << mask;
    std::locale::global(before);
}

TEST(Addresses, ResolvedAddressesAreAppended) {
    std::vector<std::string> addresses{"10.0.0.1"};
    EXPECT_EQ(net::GetIpByDomainName("no-such-host.invalid", addresses), 0);
    const int count = net::GetIpByDomainName("localhost", addresses);
    ASSERT_GE(count, 1);
    EXPECT_EQ(addresses.size(), 1U + static_cast<unsigned>(count));
    EXPECT_EQ(addresses[1], "127.0.0.1");
}

TEST(Interfaces, AreListedByEachAddressWithNameAndMacOfThoseThatAreThere) {
    ASSERT_EQ(std::system(
                  "ip link add eth0 type veth peer name far && ip link set eth0 address 00:1a:2b:3c:4d:5e && "
                  "ip addr add 10.1.0.2/24 dev eth0 && "
                  "ip addr add 10.1.0.1/24 dev eth0 label eth0:1 && ip link set eth0 up"),
              0);
    const unsigned int first = net::transAddr("10.1.0.1");
    const unsigned int second = net::transAddr("10.1.0.2");
    const unsigned int unknown = net::transAddr("10.9.9.9");
    EXPECT_THAT(net::localIpSet(), ElementsAre(first, second)) << "without the loopback interface";
    EXPECT_EQ(net::localIfaName(first), "eth0:1");
    EXPECT_EQ(net::localIfaName(second), "eth0");
    EXPECT_EQ(net::localIfaName(unknown), "");
    EXPECT_EQ(net::localMac(first), "001A2B3C4D5E");
    EXPECT_THAT([&] { net::localMac(unknown); },
                testing::ThrowsMessage<std::logic_error>("basic_string::_M_construct null not valid"));

    char mac[18] = "untouched";
    char tooLong[] = "interface-name-16";
    char notThere[] = "eth9";
    EXPECT_EQ(net::getMac(nullptr, notThere), nullptr);
    for (char* const name : {static_cast<char*>(nullptr), tooLong, notThere})
        EXPECT_EQ(net::getMac(mac, name), mac);
    EXPECT_STREQ(mac, "untouched");
}

} // namespace
