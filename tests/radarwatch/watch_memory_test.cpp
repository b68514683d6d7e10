// Every allocation on the library's threads, and then on the application's, fails in turn: nothing ends the
// process, and in the end the Watch tells what is there.
#include "../failing_memory.h"
#include "watch_fixture.h"

namespace {

using namespace std::chrono_literals;

TEST_F(WatchOnLan, MemoryThatRanOutCostsIntermediateStatesOnly) {
    const auto watching = watch();
    const auto late = watch(); // its reader lacks memory
    const auto sender = makeIn<net::UdpSender>(m_host1, "236.6.7.5", static_cast<unsigned short>(6878),
                                               net::transAddr("10.20.1.1"), static_cast<unsigned short>(0));
    ASSERT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
    std::string name;
    int id = 16;
    const auto announce = [&] {
        const std::string bytes = protocol::composeAnnouncement(name, static_cast<std::uint8_t>(id), 2);
        sender->sendData(bytes.data(), static_cast<int>(bytes.size()));
    };
    const auto knows = [&](Watch& one) {
        while (one.next(0ms)) {
        }
        const auto radar = one.find(name);
        return radar && radar->hostId == id;
    };
    const Output output;
    int failed = 0;
    for (int misses = 0; misses < 3 && failed < 15;) {
        name = "a radar's name " + std::to_string(failed % 10); // longer than what needs no heap
        id = 16 + failed % 40;
        {
            const FailingMemory memory(failed + 1);
            announce();
            std::this_thread::sleep_for(20ms);
            misses = memory.hit() ? 0 : misses + 1;
        }
        EXPECT_TRUE(comesTrue([&] {
            announce();
            return knows(*watching);
        })) << "after allocation "
            << failed + 1;
        failed += misses == 0 ? 1 : 0;
    }
    EXPECT_GE(failed, 5);

    for (int first = 1; first < 1000; ++first) {
        bool done = false;
        try {
            const FailingMemory memory(first, FailingMemory::Threads::kOwn);
            while (late->next(0ms)) {
            }
            late->radars();
            done = !memory.hit();
        } catch (const std::bad_alloc&) {
        }
        if (done)
            break;
    }
    EXPECT_TRUE(comesTrue([&] {
        announce();
        return knows(*late);
    }));
}

} // namespace
