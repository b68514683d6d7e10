#include <gtest/gtest.h>
#include <lab/private_network.h>

/// Every test program runs in a network of its own; listing the tests opens no socket and needs none.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests))
        lab::enterPrivateNetwork();
    return RUN_ALL_TESTS();
}
