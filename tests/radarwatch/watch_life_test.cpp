// A Watch and its Streams in the process they live in: destroyed anywhere, at any time; one that forks, ends.
#include "../faults.h"
#include "asleep.h"
#include "watch_fixture.h"

#include <RadarWatch/membership.h>
#include <RadarWatch/radarstream.h>

#include <UdpSocket/base/socket.h>

#include <net/if.h>

namespace {

using radar::Stream;
using radar::detail::Membership;

class WatchLife : public WatchOnLan {
protected:
    WatchLife() {
        std::thread([] {}).join(); // ThreadSanitizer starts a thread of its own with the first
        m_before = ProcessResources::now();
    }
    bool nothingIsLeft() const {
        return comesTrue([&] { // a thread that ended may have been counted before
            const ProcessResources now = ProcessResources::now();
            return now.descriptors == m_before.descriptors && now.threads <= m_before.threads;
        });
    }
    ProcessResources m_before{};
};

// ----------------------------------------------------------------------------------------------- destruction

TEST_F(WatchLife, EndsInEachStateAndLeavesNothing) {
    watch();                                           // at once
    watch(Watch::Options{net::transAddr("10.9.9.9")}); // which nobody has
    auto first = watch();                              // with events that nobody takes
    auto second = watch();
    first.reset();
    EXPECT_EQ(next(*second), "local 10.20.2.1 (eth0)");
    second.reset();
    m_profile.write("");
    watch(); // in a search
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, WhoWaitsReturnsWhenItsObjectIsDestroyed) {
    auto watching = watch();
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)"); // the only one
    auto stream = std::make_unique<Stream>(*watching, "North", radar::Image);
    const auto endsWith = [](auto& object, auto wait) {
        std::atomic<pid_t> thread = 0;
        auto waits = std::async(std::launch::async, [&, raw = object.get()] {
            thread = ::gettid();
            return wait(*raw);
        });
        EXPECT_TRUE(comesTrue([&] { return thread != 0 && isAsleep(thread); }));
        object.reset();
        return waits.wait_for(10s) == std::future_status::ready && !waits.get();
    };
    EXPECT_TRUE(endsWith(stream, [](Stream& one) {
        radar::Datagram datagram;
        return one.read(&datagram, 1, -1ms) != 0;
    }));
    EXPECT_TRUE(endsWith(watching, [](Watch& one) { return one.next(-1ms).has_value(); }));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, DestructionWaitsForACallbackInProgress) {
    LongCallback called;
    auto watching = watch([&](const radar::Event&) { called(); });
    EXPECT_TRUE(called.isAwaitedBy([&] { watching.reset(); }));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WatchLife, CallbackMayCallEverythingAndDestroyItsWatch) {
    const auto north = serve(m_host1, "North", 16);
    std::unique_ptr<Watch> watching;
    std::promise<void> set;
    std::atomic<bool> destroyed = false;
    watching = watch([&, wait = set.get_future().share()](const radar::Event& event) {
        wait.wait();
        if (event.kind != radar::Event::Kind::Appeared)
            return;
        EXPECT_EQ(watching->radars().size(), 1U);
        EXPECT_TRUE(watching->renumber("North") && watching->reset());
        EXPECT_FALSE(watching->next(1h).has_value());
        watching.reset();
        destroyed = true;
    });
    set.set_value();
    EXPECT_TRUE(comesTrue([&] { return destroyed.load(); }));
}

// -------------------------------------------------------------------------------------------- the process

TEST_F(WatchLife, ForkedChildMakesItsOwnAndItsParentNoticesNothing) {
    const auto north = serve(m_host1, "North", 16);
    auto watching = watch();
    const auto calls = watch([](const radar::Event&) {});
    std::optional<Stream> stream(std::in_place, *watching, "North", radar::Image);
    const auto image = makeIn<net::UdpSender>(m_host1, radar::groups(16)[0].imageStream,
                                              net::transAddr("10.20.1.1"), std::uint16_t{0});
    radar::Datagram datagram;
    const auto streams = [&] {
        return comesTrue([&] {
            image->sendData("x", 1);
            while (stream->nextEvent())
                continue;
            return stream->read(&datagram, 1, 10ms) == 1;
        });
    };
    EXPECT_TRUE(streams());
    Stream unread(*watching, "North", radar::ImageState);
    pollfd started{unread.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&started, 1, 15000), 1);
    EXPECT_EQ(next(*watching), "local 10.20.2.1 (eth0)");
    radar::StreamOptions pooled;
    pooled.pool.emplace(radar::Pool::Options{1});
    const auto isRefused = [](auto make) {
        try {
            make();
            return false;
        } catch (const std::system_error& error) {
            return error.code().value() == EINVAL;
        }
    };
    const auto child = [&] {
        ::alarm(60);
        const bool idle = !watching->next(-1ms) && watching->radars().empty() && !watching->reset() &&
                          watching->descriptor() == -1 && stream->read(&datagram, 1, -1ms) == 0 &&
                          !unread.nextEvent() && stream->descriptor() == -1 &&
                          stream->statistics().datagrams == 0;
        bool refused = isRefused([&] { Stream(*watching, "North", radar::Image); }) &&
                       isRefused([&] { radar::Control(*watching, "North", radar::ImageControl); });
        stream.reset();
        watching.reset();
        bool hears = true;
// ThreadSanitizer lets no forked child start a thread, and AddressSanitizer's allocator keeps the locks that
// threads of the parent held.
#ifndef SANITIZED
        auto own = watch();
        hears = next(*own) == "local 10.20.2.1 (eth0)" && next(*own) == "North appeared, 16 at 10.20.1.1";
        refused = refused && isRefused([&] {
                      Stream(
                          *own, "North", radar::Image, [](const radar::Datagram&) {}, {}, pooled);
                  });
#endif
        ::_exit(idle && refused && hears ? 7 : 1);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(7), "");
    EXPECT_TRUE(streams());
    EXPECT_EQ(next(*watching), "North appeared, 16 at 10.20.1.1");
    const auto south = serve(m_host2, "South", 17);
    EXPECT_EQ(next(*watching), "South appeared, 17 at 10.20.1.2");
}

class Memberships : public testing::Test {
protected:
    using Renewal = Membership::Renewal;

    std::unique_ptr<Membership> join(const net::detail::Descriptor& socket) const {
        return Membership::join(socket, net::transAddr("236.6.7.9"), 0, ::if_nametoindex("lo"));
    }
    const int m_up = std::system("ip link set lo up");
    const net::detail::Descriptor m_first = net::detail::openSocket(SOCK_DGRAM);
    const net::detail::Descriptor m_second = net::detail::openSocket(SOCK_DGRAM);
};

TEST_F(Memberships, OfAForkedChildAreItsOwn) {
    const auto ofParent = join(m_first);
    ASSERT_NE(ofParent, nullptr);
    const auto child = [&] {
        const auto renewed = join(m_second)->renew(std::chrono::steady_clock::now());
        ::_exit(static_cast<int>(renewed.renewal));
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(static_cast<int>(Renewal::OthersJoined)), "");
}

TEST_F(Memberships, OfOneGroupAreRenewedTogetherAndNotBesideData) {
    const auto now = std::chrono::steady_clock::now();
    const auto first = join(m_first);
    const auto second = join(m_second);
    EXPECT_EQ(first->renew(now).renewal, Renewal::Done);
    first->noteData(now + 500ms);
    EXPECT_EQ(second->renew(now + 900ms).renewal, Renewal::Done) << "with the first";
    EXPECT_EQ(second->renew(now + 1400ms).renewal, Renewal::DataFlow);
    EXPECT_EQ(second->renew(now + 1600ms).renewal, Renewal::Done);
}

TEST_F(WatchLife, ProgramMayEndWhileWatchesStand) {
    const auto program = [this] {
        ::alarm(60);
        static const auto s_watching = watch();
        new auto(watch([](const radar::Event&) {}));
        s_watching->next(10s);
        std::exit(7);
    };
    EXPECT_EXIT(program(), testing::ExitedWithCode(7), "");
}

} // namespace
