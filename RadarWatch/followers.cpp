#include <RadarWatch/followers.h>

#include <UdpSocket/base/thread.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace radar::detail {

using net::detail::Lock;

namespace {

bool differ(const Situation& one, const Situation& other) {
    return one.localAddress != other.localAddress || one.device != other.device ||
           one.interfaceIndex != other.interfaceIndex || one.interfaceChange != other.interfaceChange ||
           one.radar.has_value() != other.radar.has_value() ||
           (one.radar &&
            (one.radar->name != other.radar->name || changesBetween(*one.radar, *other.radar) != 0));
}

} // namespace

void Followers::add(const std::string& name, std::shared_ptr<Follower> follower) {
    Lock lock(m_mutex);
    m_followers.push_back({name, std::move(follower), {}});
}

void Followers::remove(const Follower* follower, bool wait) {
    std::list<Following> gone; // ends without the lock
    Lock lock(m_mutex);
    if (const auto found = find(follower); found != m_followers.end())
        gone.splice(gone.end(), m_followers, found);
    if (wait)
        m_callEnded.wait(lock, [&]() REQUIRES(m_mutex) { return m_called != follower; });
}

void Followers::call(const std::function<Situation(const std::string&)>& situationOf,
                     std::optional<TimePoint> tick) {
    std::vector<Following> followers;
    {
        Lock lock(m_mutex);
        followers.assign(m_followers.begin(), m_followers.end());
    }
    for (const Following& following : followers)
        callOne(following, situationOf(following.name), tick);
}

void Followers::callOne(const Following& following, const Situation& situation,
                        std::optional<TimePoint> tick) {
    Follower* const follower = following.follower.get();
    const bool isNews = !following.told || differ(*following.told, situation);
    {
        Lock lock(m_mutex);
        if (find(follower) == m_followers.end())
            return;
        m_called = follower;
    }
    const bool done = net::detail::runStep("RadarWatch: a stream's step", [&] {
        if (isNews)
            follower->onSituation(situation);
        if (tick)
            follower->onTick(*tick);
    });
    std::optional<Situation> told;
    if (done && isNews)
        net::detail::runStep("RadarWatch: what a stream was told", [&] { told = situation; });
    Lock lock(m_mutex);
    m_called = nullptr;
    m_callEnded.notify_all();
    if (const auto followed = find(follower); told && followed != m_followers.end())
        followed->told = std::move(told);
}

std::list<Followers::Following>::iterator Followers::find(const Follower* follower) {
    return std::ranges::find_if(
        m_followers, [&](const Following& following) { return following.follower.get() == follower; });
}

} // namespace radar::detail
