// Every allocation of what a Stream and a Control do fails in turn: nothing ends the process, nothing is left
// behind, and in the end data come from where the radar is, and go there.
#include "../failing_memory.h"
#include "watch_fixture.h"

#include <RadarWatch/radarstream.h>

#include <UdpSocket/protocol/address_plan.h>

#include <atomic>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using radar::Stream;

class StreamMemory : public WatchOnLan {
protected:
    StreamMemory() { EXPECT_EQ(next(*m_watch), "local 10.20.2.1 (eth0)"); }

    /// North is under this host id from now on.
    void move(int id) {
        m_id = id;
        m_image = sender(plan::announcedEndpoint(own(), &RadarAddress::imageStream, 0));
        const NetAddress control = plan::announcedEndpoint(own(), &RadarAddress::imageCtrl, 0);
        m_receiver = makeIn<net::UdpReceiver>(m_host1, &m_controls, net::transAddr("10.20.1.1"),
                                              net::transAddr(control.ip), net::NtoHs(control.port), 1000);
    }
    void announce() {
        const std::string bytes = protocol::composeAnnouncement("North", own(), 1);
        m_announcements->sendData(bytes.data(), static_cast<int>(bytes.size()));
    }
    void sendImage() {
        const char id = static_cast<char>(m_id);
        m_image->sendData(&id, 1);
    }
    bool isControlledBy(radar::Control& control) {
        const std::string command = "to " + std::to_string(m_id);
        control.send(command.data(), command.size());
        return m_controls.nextBytes(5ms) == command;
    }
    std::uint8_t own() const { return static_cast<std::uint8_t>(m_id); }
    std::unique_ptr<net::UdpSender> sender(const NetAddress& to) const {
        return makeIn<net::UdpSender>(m_host1, to, net::transAddr("10.20.1.1"), std::uint16_t{0});
    }

    std::unique_ptr<Watch> m_watch = watch();
    Recorder m_controls;
    int m_id = 0;
    std::unique_ptr<net::UdpSender> m_announcements = sender({net::transAddr("236.6.7.5"), net::HtoNs(6878)});
    std::unique_ptr<net::UdpSender> m_image;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

/// What has come last over a stream: the host id under which it was sent.
class Last {
public:
    Stream::OnDatagram callback() {
        return [this](const radar::Datagram& datagram) { m_id = datagram.data[0]; };
    }
    std::atomic<int> m_id = 0;
};

TEST_F(StreamMemory, AChangeThatItCostIsTakenUpAgain) {
    Last called;
    Last pooled;
    Last read;
    radar::StreamOptions inPool;
    inPool.pool.emplace(radar::Pool::Options{1});
    const lab::Inside inside = m_display.enter();
    const Stream calling(*m_watch, "North", radar::Image, called.callback());
    const Stream pooling(*m_watch, "North", radar::Image, pooled.callback(), {}, inPool);
    Stream reading(*m_watch, "North", radar::Image);
    radar::Control control(*m_watch, "North", radar::ImageControl);
    const auto everythingIsThere = [&] {
        announce();
        sendImage();
        radar::Datagram datagram;
        while (reading.read(&datagram, 1, 0ms) == 1)
            read.m_id = datagram.data[0];
        return called.m_id == m_id && pooled.m_id == m_id && read.m_id == m_id && isControlledBy(control);
    };
    move(16);
    ASSERT_TRUE(comesTrue(everythingIsThere));

    const Output output;
    int failures = 0;
    int misses = 0;
    for (long first = 1; misses < 3 && first <= 120; first += first < 20 ? 1 : 5) {
        const long count = first % 2 == 0 ? FailingMemory::kEver : 1;
        move(16 + static_cast<int>(first) % 40);
        {
            const FailingMemory memory(first, FailingMemory::Threads::kOthers, count);
            announce();
            comesTrue([&] { return memory.hit(); }, 20ms);
            std::this_thread::sleep_for(5ms); // it has run out for this long
            misses = memory.hit() ? 0 : misses + 1;
            failures += memory.hit() ? 1 : 0;
        }
        ASSERT_TRUE(comesTrue(everythingIsThere)) << "after allocation " << first;
    }
    EXPECT_GT(failures, 20);
    std::istringstream lines(output.err());
    int losses = 0;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_THAT(line, testing::AnyOf(testing::EndsWith(" was lost: out of memory"),
                                         testing::EndsWith(" like the next one were left out)")));
        ++losses;
    }
    EXPECT_GT(losses, 0);
}

TEST_F(StreamMemory, MakingThemReadingAndEndingLeaveNothingBehind) {
    move(16);
    const lab::Inside inside = m_display.enter();
    const auto announced = [&] {
        announce();
        return m_watch->find("North").has_value();
    };
    while (!announced())
        m_watch->next(10ms);
    m_receiver.reset(); // of which threads come and go
    const auto before = resources();
    const auto pass = [&](bool pooled, bool read) {
        radar::StreamOptions options;
        if (pooled)
            options.pool.emplace(radar::Pool::Options{2});
        radar::Control control(*m_watch, "North", radar::ImageControl);
        if (!read) {
            const Stream stream(
                *m_watch, "North", radar::Image, [](const radar::Datagram&) {}, {}, options);
            control.send("x", 1);
            return;
        }
        Stream stream(*m_watch, "North", radar::Image, options);
        stream.descriptor();
        radar::Datagram datagram;
        stream.read(&datagram, 1, 20ms);
        stream.nextEvent();
        stream.statistics();
    };
    for (const auto& [pooled, read] : {std::pair(false, false), {true, false}, {false, true}}) {
        int failures = 0;
        for (bool hit = true; hit; failures += hit ? 1 : 0) {
            ASSERT_LT(failures, 500);
            const FailingMemory memory(failures + 1, FailingMemory::Threads::kOwn);
            try {
                pass(pooled, read);
            } catch (const std::bad_alloc&) {
            }
            hit = memory.hit();
        }
        EXPECT_GT(failures, 5);
        EXPECT_TRUE(comesTrue([&] { return resources() == before; })) << pooled << read;
    }
}

} // namespace
