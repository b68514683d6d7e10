/// @file
/// The network of tests that need one interface.
#pragma once

#include "test.h"

/// A test suite with one interface, eth0, with the address 10.1.0.1/24.
class OneInterface : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(std::system("ip link show eth0 > /dev/null 2>&1 || "
                              "(ip link add eth0 type veth peer name far && ip link set far up && "
                              "ip addr add 10.1.0.1/24 brd + dev eth0 && ip link set eth0 up && "
                              "ip route add 224.0.0.0/4 dev eth0)"),
                  0);
        std::thread([] {}).join(); // ThreadSanitizer starts a thread of its own with the first
    }
};
