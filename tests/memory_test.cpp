// Every allocation on the library's threads fails in turn, while each class does its work: nothing ends the
// process, and the object works afterwards. The TCP classes have a test of their own (tcp_memory_test.cpp).

#include "failing_memory.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "wait.h"

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;

constexpr const char* kGroup = "239.9.8.7";

std::atomic<std::int64_t> s_time = 1000;

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
        timing.search = {5ms, 5ms, 40ms, 5ms};
        timing.addressLook = 10ms;
        timing.objection = 10ms;
        timing.checkerProbe = 15ms;
        timing.checkerPause = 5ms;
        net::detail::setTiming(timing);
        m_sender.setMulticastLoop(true);
    }

    /// @param works makes the library's threads work, waits a while for what comes of it, and says whether
    ///              that came
    /// @return how many allocations have failed
    template <class Works>
    static int failEachAllocation(Works works) {
        const Output output;
        int failed = 0;
        for (int misses = 0; misses < 3 && failed < 20;) { // a busy machine may have done less in a while
            {
                const FailingMemory memory(failed + 1);
                works();
                misses = comesTrue([&] { return memory.hit(); }, 300ms) ? 0 : misses + 1;
            }
            EXPECT_TRUE(comesTrue(works, 60s)) << "after allocation " << failed + 1;
            failed += misses == 0 ? 1 : 0;
        }
        EXPECT_THAT(output.err(), testing::ContainsRegex("out of memory|bad_alloc"));
        return failed;
    }

    void send() { m_sender.sendData("text", 4); }

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
    EXPECT_GE(failEachAllocation(receives), 2);
}

TEST_F(Memory, CheckerLosesACheck) {
    Addresses found;
    net::UdpChecker checker(kGroup, 5000, "text");
    checker.addListener(&found);
    const auto hasForgotten = [&] { // it hears nothing, and so has nothing to tell
        Addresses late;
        checker.addListener(&late);
        checker.removeListener(&late);
        return late.all().empty();
    };
    const auto finds = [&] {
        comesTrue(hasForgotten);
        found.clear();
        return comesTrue([&] { return send(), found.reaches(1, 10ms); }, 500ms);
    };
    EXPECT_GE(failEachAllocation(finds), 4);
}

/// Needs no memory, so that it knows what was told.
class LastAddress : public iMultiRadarCheckerListener {
public:
    bool becomes(const char* address) const {
        return comesTrue([&, ip = net::transAddr(address)] { return m_address == ip; }, 60s);
    }

private:
    void OnLocalIpChanged(unsigned int localIp) override { m_address = localIp; }
    std::atomic<unsigned int> m_address = 0;
};

TEST_F(Memory, SearchLosesAPass) {
    net::detail::setClock([] { return s_time.load(); });
    const ProfileDirectory profile("[Local]\nMulticastLoop = true\n");
    const HostServer host("R", 16, 2);
    LastAddress address;
    MultiRadarClient client;
    client.addListener(&address);
    const auto lists = [&] {
        s_time += 8; // what was heard before leaves
        client.query();
        return comesTrue([&] { return !client.getRadar().empty(); }, 50ms);
    };
    ASSERT_TRUE(address.becomes("10.1.0.1"));
    EXPECT_EQ(failEachAllocation(lists), 20) << "one search follows the other";
    ASSERT_EQ(std::system("ip addr add 10.1.0.2/24 dev eth0"), 0);
    const auto moves = [&] { // its sockets are made anew
        for (const char* local : {"10.1.0.2", "10.1.0.1"}) {
            client.setLocalIP(net::transAddr(local));
            EXPECT_TRUE(address.becomes(local));
        }
        return comesTrue(lists);
    };
    EXPECT_GE(failEachAllocation(moves), 10);
}

TEST_F(Memory, NegotiationGoesOn) {
    Counter logins;
    HostNegotiator negotiator(nullptr, [&](std::uint8_t) { logins.add(); });
    ASSERT_TRUE(negotiator.asyncLogin(20));
    ASSERT_TRUE(comesTrue([&] { return logins.count == 1; }));
    net::UdpSender objector("236.6.7.4", 6768, m_local, 0);
    objector.setMulticastLoop(true);
    const auto negotiates = [&] {
        const int before = logins.count;
        for (int id = 16; id <= 63; ++id)
            objector.sendData((std::string("\x03\xA1") + static_cast<char>(id) + "\1").c_str(), 4);
        return comesTrue([&] { return logins.count > before; }, 200ms);
    };
    EXPECT_GE(failEachAllocation(negotiates), 1);
}

} // namespace
