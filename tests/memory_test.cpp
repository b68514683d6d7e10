// Every allocation on the library's threads fails in turn, while each class does its work: nothing ends the
// process, and the object works afterwards. The TCP classes have a test of their own (tcp_memory_test.cpp).

#include "failing_memory.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "wait.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr const char* kGroup = "239.9.8.7";

/// Counts, and allocates as an application's callback does.
class Counter : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int) override { add(); }
    void add() {
        m_text = std::make_unique<std::string>(100, 'x');
        ++count;
    }
    std::atomic<int> count = 0;

private:
    std::unique_ptr<std::string> m_text; // by the calling thread
};

class Memory : public OneInterface {
protected:
    Memory() {
        net::detail::Timing timing;
        timing.search = {5ms, 5ms, 60ms, 5ms};
        timing.addressLook = 10ms;
        timing.objection = 10ms;
        timing.checkerProbe = 15ms;
        timing.checkerPause = 5ms;
        net::detail::setTiming(timing);
        m_sender.setMulticastLoop(true);
    }
    ~Memory() override { net::detail::setTiming({}); }

    /// @param work what makes the library's threads work, for a while that sees all of it done
    /// @param works whether the object works, at last
    /// @return how many allocations have failed
    template <class Work, class Works>
    static int failEachAllocation(Work work, Works works) {
        const Output output;
        int failed = 0;
        for (int misses = 0; misses < 3 && failed < 20;) { // a busy machine may have done less in a while
            {
                const FailingMemory memory(failed + 1);
                work();
                misses = memory.hit() ? 0 : misses + 1;
            }
            EXPECT_TRUE(comesTrue(works, 60s)) << "after allocation " << failed + 1;
            failed += misses == 0 ? 1 : 0;
        }
        EXPECT_THAT(output.err(), HasSubstr("was lost: out of memory\n"));
        return failed;
    }

    void send() {
        m_sender.sendData("text", 4);
        std::this_thread::sleep_for(10ms);
    }

    const unsigned int m_local = net::transAddr("10.1.0.1");
    net::UdpSender m_sender{kGroup, 5000, m_local, 0};
};

TEST_F(Memory, ReceiversLoseADatagram) {
    Counter received[2];
    const net::UdpReceiver receiver(&received[0], m_local, kGroup, 5000, 64);
    net::UdpSocket socket(&received[1], 64);
    socket.SetGroupRecvSockAddr(m_local, kGroup, 5000);
    const auto receives = [&] {
        const int before[] = {received[0].count, received[1].count};
        send();
        return comesTrue([&] { return received[0].count > before[0] && received[1].count > before[1]; },
                         100ms);
    };
    EXPECT_GE(failEachAllocation([this] { send(); }, receives), 2);
}

TEST_F(Memory, CheckerLosesACheck) {
    Addresses found;
    net::UdpChecker checker(kGroup, 5000, "text");
    checker.addListener(&found);
    const auto finds = [&] {
        found.clear();
        std::this_thread::sleep_for(50ms); // it hears nothing, and so forgets
        return comesTrue([&] { return send(), found.reaches(1, 0ms); }, 500ms);
    };
    const auto check = [this] {
        for (int i = 0; i < 5; ++i)
            send();
    };
    EXPECT_GE(failEachAllocation(check, finds), 4);
}

TEST_F(Memory, SearchLosesAPassAndSettlesAfterwards) {
    const ProfileDirectory profile("[Local]\nMulticastLoop = true\n");
    const HostServer host("R", 16, 2);
    Addresses addresses;
    MultiRadarClient client;
    client.addListener(&addresses);
    ASSERT_TRUE(addresses.reaches(1));
    const auto search = [&] {
        client.setLocalIP(net::transAddr("127.0.0.1")); // then searches again
        std::this_thread::sleep_for(5ms);
        client.setLocalIP(0);
        comesTrue([&] { return addresses.all().back() == "10.1.0.1"; }, 2s);
        std::this_thread::sleep_for(50ms);
    };
    const auto lists = [&] {
        client.query();
        const auto all = addresses.all();
        return all.back() == "10.1.0.1" && comesTrue([&] { return !client.getRadar().empty(); }, 50ms);
    };
    EXPECT_GE(failEachAllocation(search, lists), 10);
}

TEST_F(Memory, NegotiationGoesOn) {
    Counter logins;
    HostNegotiator negotiator(nullptr, [&](std::uint8_t) { logins.add(); });
    ASSERT_TRUE(negotiator.asyncLogin(20));
    ASSERT_TRUE(comesTrue([&] { return logins.count == 1; }));
    net::UdpSender objector("236.6.7.4", 6768, m_local, 0);
    objector.setMulticastLoop(true);
    const auto object = [&] {
        for (int id = 16; id <= 63; ++id)
            objector.sendData((std::string("\x03\xA1") + static_cast<char>(id) + "\1").c_str(), 4);
        std::this_thread::sleep_for(60ms);
    };
    const auto negotiates = [&] {
        const int before = logins.count;
        object();
        return comesTrue([&] { return logins.count > before; }, 200ms);
    };
    EXPECT_GE(failEachAllocation(object, negotiates), 1);
}

} // namespace
