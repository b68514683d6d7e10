#include <UdpSocket/transport/interfaces.h>
#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <locale>

namespace {

using testing::ElementsAre;

TEST(Addresses, InvalidTextIsTranslatedToAllOnes) {
    EXPECT_EQ(net::transAddr("255.255.255.255"), 0xFFFFFFFFU);
    EXPECT_EQ(net::transAddr("radar"), 0xFFFFFFFFU);
    EXPECT_STREQ(net::transAddr(net::transAddr("236.6.7.8")), "236.6.7.8");
}

TEST(Addresses, PrefixLengthsWrapOutsideZeroToThirtyTwo) {
    EXPECT_EQ(net::cidrToMask(0), "0.0.0.0");
    EXPECT_EQ(net::cidrToMask(1), "128.0.0.0");
    EXPECT_EQ(net::cidrToMask(24), "255.255.255.0");
    EXPECT_EQ(net::cidrToMask(32), "255.255.255.255");
    EXPECT_EQ(net::cidrToMask(33), "128.0.0.0");
    EXPECT_EQ(net::cidrToMask(64), "255.255.255.255");
    EXPECT_EQ(net::cidrToMask(-1), net::cidrToMask(31));
}

TEST(Addresses, NetmaskBitsAreCountedWithoutValidation) {
    for (int prefix = 0; prefix <= 32; ++prefix)
        EXPECT_EQ(net::maskToCidr(net::cidrToMask(prefix)), prefix);
    EXPECT_EQ(net::maskToCidr("255.0.255.0"), 16);
    EXPECT_EQ(net::maskToCidr("255/255-255x0"), 24);
    EXPECT_EQ(net::maskToCidr("0.256.0.0"), 1) << "256 spills into the first number";
    EXPECT_EQ(net::maskToCidr("255.255"), 16);
    EXPECT_EQ(net::maskToCidr("99999999999.255.255.255"), 0);
    EXPECT_EQ(net::maskToCidr("mask"), 0);
}

TEST(Addresses, NetmaskBitsAreCountedInAnyLocale) {
    struct PointsBetweenThousands : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new PointsBetweenThousands));
    EXPECT_EQ(net::maskToCidr("255.255.255.0"), 24);
    std::locale::global(before);
}

TEST(Addresses, ResolvedAddressesAreAppended) {
    std::vector<std::string> addresses{"10.0.0.1"};
    EXPECT_EQ(net::GetIpByDomainName("no-such-host.invalid", addresses), 0);
    EXPECT_THAT(addresses, ElementsAre("10.0.0.1"));
    const int count = net::GetIpByDomainName("localhost", addresses);
    ASSERT_GE(count, 1);
    EXPECT_EQ(addresses.size(), 1U + static_cast<unsigned>(count));
    EXPECT_EQ(addresses[1], "127.0.0.1");
}

TEST(Interfaces, EveryAddressOfAnInterfaceIsListed) {
    ASSERT_EQ(std::system(
                  "ip link add eth0 type veth peer name far && ip link set eth0 address 00:1a:2b:3c:4d:5e && "
                  "ip addr add 10.1.0.2/24 dev eth0 && "
                  "ip addr add 10.1.0.1/24 dev eth0 label eth0:1 && ip link set eth0 up"),
              0);
    const unsigned int first = net::transAddr("10.1.0.1");
    const unsigned int second = net::transAddr("10.1.0.2");
    EXPECT_THAT(net::localIpSet(), ElementsAre(first, second)) << "without the loopback interface";
    EXPECT_EQ(net::localNetworkInterfaces().at(net::transAddr("127.0.0.1")).mac, "00:00:00:00:00:00");
    EXPECT_EQ(net::localIfaName(first), "eth0:1");
    EXPECT_EQ(net::localIfaName(second), "eth0");
    EXPECT_EQ(net::localMac(first), "001A2B3C4D5E");
    EXPECT_EQ(net::localMac(second), "001A2B3C4D5E");

    EXPECT_EQ(net::localIfaName(net::transAddr("10.9.9.9")), "");
    try {
        net::localMac(net::transAddr("10.9.9.9"));
        FAIL() << "an unknown address has no MAC";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}

TEST(Interfaces, MacIsUnchangedForUnknownInterfaces) {
    char mac[18] = "untouched";
    char tooLong[] = "interface-name-16";
    char unknown[] = "eth9";
    EXPECT_EQ(net::getMac(mac, nullptr), mac);
    EXPECT_EQ(net::getMac(nullptr, unknown), nullptr);
    EXPECT_EQ(net::getMac(mac, tooLong), mac);
    EXPECT_EQ(net::getMac(mac, unknown), mac);
    EXPECT_STREQ(mac, "untouched");
}

} // namespace
