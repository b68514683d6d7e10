#include "asleep.h"

#include <RadarWatch/followers.h>

namespace radar::detail {
namespace {

class Follows final : public Follower {
public:
    void onSituation(const Situation&) override { ++told; }
    void onTick(TimePoint) override { inTick(); }

    int told = 0;
    std::function<void()> inTick = [] {};
};

class FollowersTest : public testing::Test {
protected:
    FollowersTest() { m_followers.add("North", m_follower); }
    void tick(const Situation& situation) {
        m_followers.call([&](const std::string&) { return situation; }, TimePoint());
    }

    const std::shared_ptr<Follows> m_follower = std::make_shared<Follows>();
    Followers m_followers;
};

TEST_F(FollowersTest, AreToldEveryChangeOnce) {
    Situation situation{0, "eth0", 2, 0, Radar{}};
    const auto isToldOnce = [&] {
        const int before = m_follower->told;
        tick(situation);
        const int once = m_follower->told;
        tick(situation);
        return once == before + 1 && m_follower->told == once;
    };
    EXPECT_TRUE(isToldOnce());
    situation.radar->hostId = 17;
    EXPECT_TRUE(isToldOnce());
    situation.interfaceChange = 1;
    EXPECT_TRUE(isToldOnce());
    situation.localAddress = 1;
    EXPECT_TRUE(isToldOnce());
    situation.radar.reset();
    EXPECT_TRUE(isToldOnce());
}

TEST_F(FollowersTest, AreNotCalledAnyMoreWhenTheirRemovalReturns) {
    LongCallback called;
    m_follower->inTick = [&] { called(); };
    std::thread calls([&] { tick({}); });
    EXPECT_TRUE(called.isAwaitedBy([&] { m_followers.remove(m_follower.get(), true); }));
    calls.join();
    const int told = m_follower->told;
    tick(Situation{0, "eth0", 2, 0, Radar{}});
    EXPECT_EQ(m_follower->told, told);
}

} // namespace
} // namespace radar::detail
