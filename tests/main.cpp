#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/timing.h>

#include <gtest/gtest.h>
#include <lab/private_network.h>

#include <unistd.h>

static pid_t s_testProcess = 0;

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
    s_testProcess = ::getpid();
    return RUN_ALL_TESTS();
}

// Asked by LeakSanitizer at the end of a process. A forked child leaves its parent's objects as they are, and
// what only a thread of the parent held looks lost there.
extern "C" __attribute__((visibility("default"))) int
__lsan_is_turned_off();      // NOLINT(clang-diagnostic-reserved-identifier): it is the sanitizer's name
int __lsan_is_turned_off() { // NOLINT(clang-diagnostic-reserved-identifier)
    return s_testProcess != 0 && ::getpid() != s_testProcess ? 1 : 0;
}
