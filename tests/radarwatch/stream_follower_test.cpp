#include "../test.h"

#include <RadarWatch/stream_follower.h>

#include <arpa/inet.h>

namespace radar::detail {
namespace {

using testing::IsEmpty;
using Why = StreamEvent::Why;

RadarEndpoint endpoint(const char* address, std::uint16_t port, std::uint8_t type = kUdp) {
    return {inet_addr(address), htons(port), type};
}

Target target(const char* group = "236.6.7.48", std::uint8_t type = kUdp) {
    return {endpoint(group, 6032, type), inet_addr("10.20.2.1"), "eth0", 2, 0};
}

/// A stream whose radar sends at a steady pace, second by second, and what becomes of it.
class Script {
public:
    explicit Script(std::chrono::milliseconds pace = 100ms) : m_pace(pace) {}

    Script& aim(const Target& at) {
        m_follower.aim(at, Why::None);
        return *this;
    }
    Script& radarLeaves() {
        m_follower.aim(std::nullopt, Why::RadarLeft);
        return *this;
    }
    Script& sends(int seconds) {
        return eachSecond(seconds, [this] {
            for (; m_next <= m_now; m_next += m_pace) {
                if (m_arrivals.count++ > 0)
                    m_arrivals.longestGap = std::max(m_arrivals.longestGap, m_next - m_arrivals.last);
                m_arrivals.last = m_next;
            }
        });
    }
    /// @param others sockets in the group @param error of a socket
    Script& isSilent(int seconds, unsigned others = 0, int error = 0) {
        eachSecond(
            seconds, [] {}, others, error);
        m_next = std::max(m_next, m_now);
        return *this;
    }
    Script& losesItsSocket() {
        m_follower.lost();
        m_hasSocket = false;
        return *this;
    }
    /// The radar sends, and nobody takes it until it sends again.
    Script& isNotRead(int seconds) {
        return eachSecond(seconds, [this] { m_arrivals.waiting = true; });
    }
    /// As isNotRead, and nothing is looked at either.
    Script& standsStill(int seconds) {
        m_now += seconds * 1s;
        step();
        return *this;
    }
    /// What comes next was sent that much earlier.
    Script& hadSent(std::chrono::milliseconds ago) {
        m_next -= ago;
        return *this;
    }

    std::vector<std::string> takeLog() { return std::exchange(m_log, {}); }

private:
    template <class Happens>
    Script& eachSecond(int seconds, Happens happens, unsigned others = 0, int error = 0) {
        for (int i = 0; i < seconds; ++i) {
            m_now += 1s;
            happens();
            step(others, error);
        }
        return *this;
    }
    void step(unsigned others = 0, int error = 0) {
        const auto act =
            m_follower.step(m_now, std::exchange(m_arrivals, {m_arrivals.count, m_arrivals.last, 0s}));
        if (act == StreamFollower::Act::Open && error == 0)
            m_follower.opened(m_now);
        if (act == StreamFollower::Act::Open && error != 0)
            m_follower.refused(error);
        if (act == StreamFollower::Act::Close) {
            EXPECT_TRUE(m_hasSocket);
            m_follower.closed();
        }
        if (act == StreamFollower::Act::Open || act == StreamFollower::Act::Close)
            m_hasSocket = act == StreamFollower::Act::Open && error == 0;
        if (act == StreamFollower::Act::Rejoin && others == 0) {
            log("rejoined");
            m_follower.rejoined(m_now);
        }
        if (act == StreamFollower::Act::Rejoin && others > 0)
            m_follower.othersJoined(others);
        static const char* const kinds[] = {"Started", "Moved", "Silent", "Resumed", "Stopped", "Refused"};
        static const char* const whys[] = {"",           " Endpoint",   " Interface",    " LocalAddress",
                                           " RadarLeft", " NoEndpoint", " SwitchForgot", " OthersJoined"};
        for (const StreamEvent& event : m_follower.takeEvents())
            log(std::string(kinds[static_cast<int>(event.kind)]) + whys[static_cast<int>(event.why)]);
    }
    void log(const std::string& what) {
        m_log.push_back(std::to_string(m_now.time_since_epoch() / 1s) + " " + what);
    }

    const std::chrono::milliseconds m_pace;
    StreamFollower m_follower;
    StreamFollower::Time m_now;
    StreamFollower::Time m_next = m_now + 50ms;
    Arrivals m_arrivals;
    bool m_hasSocket = false;
    std::vector<std::string> m_log;
};

TEST(StreamFollower, ListensWhereTheRadarIs) {
    const Target moved = target("236.6.7.64");
    Target replaced = moved;
    replaced.interfaceChange = 1;
    Target readdressed = replaced;
    readdressed.localAddress = inet_addr("10.20.2.2");
    Script script;
    script.isSilent(3).aim(target()).sends(2).aim(moved).sends(2).aim(replaced).sends(2);
    script.aim(readdressed).sends(2).aim(readdressed).sends(2); // told again
    EXPECT_THAT(script.takeLog(),
                ElementsAre("4 Started", "6 Moved Endpoint", "8 Moved Interface", "10 Moved LocalAddress"));
}

TEST(StreamFollower, StaysWithARadarThatIsNotListedAsLongAsItSends) {
    Script script;
    script.aim(target()).sends(2).radarLeaves().sends(10).aim(target()).sends(2);
    script.radarLeaves().isSilent(5).aim(target()).isSilent(5);
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Started", "16 Stopped RadarLeft", "20 Started"));
    EXPECT_THAT(Script().aim(target()).sends(2).radarLeaves().isNotRead(5).takeLog(),
                ElementsAre("1 Started", "4 Stopped RadarLeft"))
        << "what waits may be old";
    EXPECT_THAT(Script().aim(target()).sends(2).radarLeaves().standsStill(5).sends(2).takeLog(),
                ElementsAre("1 Started"));
}

TEST(StreamFollower, TellsARefusalOnceAsksAgainAndSaysWhatBecameOfIt) {
    EXPECT_THAT(Script().aim(target()).isSilent(3, 0, EMFILE).isSilent(2, 0, ENODEV).sends(2).takeLog(),
                ElementsAre("1 Refused", "4 Refused", "6 Started"));
    const Target moved = target("236.6.7.64");
    const auto refused = [&] {
        Script script;
        script.aim(target()).sends(2).aim(moved).isSilent(3, 0, EADDRINUSE);
        return script;
    };
    EXPECT_THAT(refused().aim(target()).sends(2).takeLog(),
                ElementsAre("1 Started", "3 Refused", "6 Started"));
    EXPECT_THAT(refused().sends(2).takeLog(), ElementsAre("1 Started", "3 Refused", "6 Moved Endpoint"));
    EXPECT_THAT(refused().radarLeaves().isSilent(5).aim(target()).sends(1).takeLog(),
                ElementsAre("1 Started", "3 Refused", "6 Stopped RadarLeft", "11 Started"));
    EXPECT_THAT(Script().aim(moved).isSilent(1, 0, EMFILE).radarLeaves().isSilent(5).takeLog(),
                ElementsAre("1 Refused", "2 Stopped RadarLeft"));
    EXPECT_THAT(Script().aim(target()).isSilent(2, 0, EMFILE).aim(moved).isSilent(2, 0, EMFILE).takeLog(),
                ElementsAre("1 Refused", "3 Refused"))
        << "at another place it is news";
    Script lost;
    lost.aim(target()).isSilent(1, 0, EMFILE).sends(2).losesItsSocket().sends(2);
    EXPECT_THAT(lost.takeLog(), ElementsAre("1 Refused", "2 Started"));
    EXPECT_THAT(lost.losesItsSocket().isSilent(1, 0, EMFILE).sends(1).takeLog(),
                ElementsAre("6 Refused", "7 Started"));
}

TEST(StreamFollower, RemindsASwitchWhenDataHaveStopped) {
    Script script;
    script.aim(target()).sends(10).isSilent(690);
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Started", "12 Silent", "13 rejoined", "20 rejoined",
                                              "70 rejoined", "670 rejoined"));
    script.sends(2).isSilent(3).sends(2);
    EXPECT_THAT(script.takeLog(),
                ElementsAre("701 Resumed", "704 Silent", "705 rejoined", "706 Resumed SwitchForgot"));
    script.isSilent(3).sends(2).isSilent(8).sends(2);
    EXPECT_THAT(script.takeLog(), ElementsAre("709 Silent", "710 rejoined", "711 Resumed SwitchForgot"))
        << "what the switch made once is not usual, but twice";
    Script seldom;
    seldom.aim(target()).sends(10).isSilent(3).sends(310).isSilent(3).sends(2).isSilent(3);
    EXPECT_THAT(seldom.takeLog(), testing::Contains(testing::HasSubstr(" Silent")).Times(3))
        << "once in five minutes is once";
}

TEST(StreamFollower, LeavesNoGroupWithoutReason) {
    EXPECT_THAT(Script().aim(target()).isSilent(35).takeLog(), ElementsAre("1 Started")) << "no data yet";
    EXPECT_THAT(Script().aim(target()).sends(5).isSilent(30, 2).takeLog(),
                ElementsAre("1 Started", "7 Silent", "8 Silent OthersJoined"));
    EXPECT_THAT(Script().aim(target()).sends(5).isSilent(5, 2).sends(5).isSilent(20, 2).takeLog(),
                ElementsAre("1 Started", "7 Silent", "8 Silent OthersJoined", "11 Resumed", "31 Silent",
                            "32 Silent OthersJoined"));
    for (const Target& noGroup : {target("10.20.1.1", kTcpClient), target("10.20.2.1")})
        EXPECT_THAT(Script().aim(noGroup).sends(5).isSilent(30).takeLog(),
                    ElementsAre("1 Started", "7 Silent"));
}

TEST(StreamFollower, TakesNoLateReaderForASilence) {
    Script script;
    script.aim(target()).sends(5).isNotRead(10).sends(5).standsStill(10).sends(5);
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Started"));
    script.isSilent(2).isNotRead(10).sends(1); // once it was told, no group is left either
    EXPECT_THAT(script.takeLog(), ElementsAre("37 Silent", "48 Resumed"));
    EXPECT_THAT(Script().aim(target()).sends(5).isSilent(3).hadSent(500ms).sends(1).takeLog(),
                ElementsAre("1 Started", "7 Silent", "8 rejoined", "9 Resumed"))
        << "not by what was sent before the switch was reminded";
}

TEST(StreamFollower, TakesNoUsualGapForASilence) {
    for (const auto pace : {2500ms, 3500ms, 4000ms, 5000ms, 7500ms}) {
        Script script(pace);
        script.aim(target()).sends(25).takeLog(); // at first nobody knows what is usual
        EXPECT_THAT(script.sends(295).takeLog(), IsEmpty()) << pace.count();
        EXPECT_THAT(script.isSilent(30).takeLog(), testing::Contains(testing::HasSubstr("Silent")))
            << pace.count();
    }
    for (const int before : {280, 310}) { // what is remembered is so for five minutes at least
        Script script;
        script.aim(target()).sends(before).isSilent(6).sends(60).takeLog();
        EXPECT_THAT(script.isSilent(10).sends(1).takeLog(), IsEmpty()) << before;
    }
}

TEST(Target, IsTheEndpointOfTheVariantThatWasAskedFor) {
    Radar radar;
    radar.name = "North";
    radar.streams.resize(2);
    radar.streams[0].imageStream = endpoint("236.6.7.48", 6032);
    radar.streams[1].imageStream = endpoint("236.6.7.51", 6035);
    radar.streams[1].imageCtrl = endpoint("236.6.7.52", 0);
    radar.streams[1].infoDev[0] = {inet_addr("236.6.11.0"), htons(7000)};
    radar.streams[1].infoDev[9] = {inet_addr("236.6.11.9"), htons(7009)};
    radar.tcp.emplace().imageStream = endpoint("10.20.1.1", 9000, kTcpClient);
    Situation situation{inet_addr("10.20.2.1"), "eth0", 2, 0, radar};

    const std::tuple<const char*, int, int, std::uint16_t> cases[] = {
        // name, channel, number, port; 0: no target
        {"North", Image, 0, 6032},
        {"North", Image, 1, 6035},
        {"North", Image, 2, 0},
        {"North", Image, -1, 0},
        {"North", ImageControl, 0, 0},
        {"North", ImageControl, 1, 0},
        {"North", InformationDevice, 1, 7000},
        {"North", InformationDevice + 9, 1, 7009},
        {"North", InformationDevice + 10, 1, 0},
        {"North", -1, 0, 0},
        {"North:TCP", Image, 0, 9000},
        {"North:TCP", Image, 1, 0},
        {"North:User", Image, 0, 0},
        {":TCP", Image, 0, 6032},
    };
    Why lacking;
    for (const auto& [name, channel, number, port] : cases) {
        const auto found = targetOf(situation, name, channel, number, lacking);
        ASSERT_EQ(found.has_value(), port != 0) << name << " " << channel << " " << number;
        EXPECT_EQ(found ? ntohs(found->endpoint.port) : 0, port) << name << " " << channel << " " << number;
        EXPECT_EQ(lacking, found ? Why::None : Why::NoEndpoint);
    }
    situation.interfaceIndex = 0;
    EXPECT_FALSE(targetOf(situation, "North", Image, 0, lacking));
    EXPECT_EQ(lacking, Why::LocalAddress);
    situation.radar.reset();
    EXPECT_FALSE(targetOf(situation, "North", Image, 0, lacking));
    EXPECT_EQ(lacking, Why::RadarLeft);
}

} // namespace
} // namespace radar::detail
