#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/timing.h>

#include <gtest/gtest.h>
#include <lab/private_network.h>

/// What a test sets for the whole process ends with it.
class Defaults : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override {
        net::detail::setClock(nullptr);
        net::detail::setTiming({});
    }
};

/// Every test program runs in a network of its own; listing the tests opens no socket and needs none.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests))
        lab::enterPrivateNetwork();
    testing::UnitTest::GetInstance()->listeners().Append(new Defaults);
    return RUN_ALL_TESTS();
}
