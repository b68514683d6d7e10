#include <RadarWatch/stream_follower.h>

#include <gmock/gmock.h>

#include <arpa/inet.h>

namespace radar::detail {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
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

    void aim(const Target& at) { m_follower.aim(at, Why::None); }
    void aimAtNothing(Why lacking) { m_follower.aim(std::nullopt, lacking); }

    /// @param sending whether datagrams come @param others sockets in the group @param error of a socket
    void pass(int seconds, bool sending, unsigned others = 0, int error = 0) {
        for (int i = 0; i < seconds; ++i) {
            const auto end = m_now + 1s;
            for (; sending && m_next <= end; m_next += m_pace) {
                if (m_arrivals.count++ > 0)
                    m_arrivals.longestGap = std::max(m_arrivals.longestGap, m_next - m_arrivals.last);
                m_arrivals.last = m_next;
            }
            m_next = std::max(m_next, sending ? m_next : end);
            m_now = end;
            step(others, error);
        }
    }

    std::vector<std::string> takeLog() { return std::exchange(m_log, {}); }

private:
    void step(unsigned others, int error) {
        const auto act =
            m_follower.step(m_now, std::exchange(m_arrivals, {m_arrivals.count, m_arrivals.last, 0s}));
        if (act == StreamFollower::Act::Open && error == 0)
            m_follower.opened(m_now);
        if (act == StreamFollower::Act::Open && error != 0)
            m_follower.refused(error);
        if (act == StreamFollower::Act::Close)
            m_follower.closed();
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
    std::vector<std::string> m_log;
};

TEST(StreamFollower, ListensWhereTheRadarIs) {
    Script script;
    script.pass(3, false);
    EXPECT_THAT(script.takeLog(), IsEmpty());
    script.aim(target());
    script.pass(2, true);
    script.aim(target("236.6.7.64"));
    script.pass(2, true);
    Target replaced = target("236.6.7.64");
    replaced.interfaceChange = 1;
    script.aim(replaced);
    script.pass(2, true);
    replaced.localAddress = inet_addr("10.20.2.2");
    script.aim(replaced);
    script.pass(2, true);
    script.aim(replaced); // told again
    script.pass(2, true);
    EXPECT_THAT(script.takeLog(),
                ElementsAre("4 Started", "6 Moved Endpoint", "8 Moved Interface", "10 Moved LocalAddress"));
}

TEST(StreamFollower, StaysWithARadarThatIsNotListedAsLongAsItSends) {
    Script script;
    script.aim(target());
    script.pass(2, true);
    script.aimAtNothing(Why::RadarLeft);
    script.pass(10, true);
    script.aim(target());
    script.pass(2, true);
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Started"));
    script.aimAtNothing(Why::RadarLeft);
    script.pass(5, false);
    script.aim(target());
    script.pass(1, false);
    EXPECT_THAT(script.takeLog(), ElementsAre("16 Stopped RadarLeft", "20 Started"));
}

TEST(StreamFollower, TellsOnceThatASocketIsRefusedAndAsksAgain) {
    Script script;
    script.aim(target());
    script.pass(3, false, 0, EMFILE);
    script.pass(2, false, 0, ENODEV);
    script.pass(2, true);
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Refused", "4 Refused", "6 Started"));
}

TEST(StreamFollower, RemindsASwitchWhenDataHaveStopped) {
    Script script;
    script.aim(target());
    script.pass(10, true);
    script.pass(690, false); // silent from second 10 on
    EXPECT_THAT(script.takeLog(), ElementsAre("1 Started", "12 Silent", "13 rejoined", "20 rejoined",
                                              "70 rejoined", "670 rejoined"));
    script.pass(2, true);
    EXPECT_THAT(script.takeLog(), ElementsAre("701 Resumed"));
    script.pass(3, false);
    script.pass(2, true);
    EXPECT_THAT(script.takeLog(), ElementsAre("704 Silent", "705 rejoined", "706 Resumed SwitchForgot"));
}

TEST(StreamFollower, LeavesNoGroupWithoutReason) {
    struct Case {
        const char* what;
        Target at;
        bool sentBefore;
        unsigned others;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"no data yet", target(), false, 0, {"1 Started"}},
        {"others in the group", target(), true, 2, {"1 Started", "7 Silent", "8 Silent OthersJoined"}},
        {"TCP", target("10.20.1.1", kTcpClient), true, 0, {"1 Started", "7 Silent"}},
        {"unicast", target("10.20.2.1"), true, 0, {"1 Started", "7 Silent"}},
    };
    for (const Case& one : cases) {
        Script script;
        script.aim(one.at);
        script.pass(5, one.sentBefore);
        script.pass(30, false, one.others);
        EXPECT_EQ(script.takeLog(), one.expected) << one.what;
    }
}

TEST(StreamFollower, TakesNoUsualGapForASilence) {
    for (const auto pace : {2500ms, 3500ms, 5000ms, 7500ms}) {
        Script script(pace);
        script.aim(target());
        script.pass(25, true);
        script.takeLog(); // at first nobody knows what is usual
        script.pass(295, true);
        EXPECT_THAT(script.takeLog(), IsEmpty()) << pace.count();
        script.pass(30, false);
        EXPECT_THAT(script.takeLog(), testing::Contains(testing::HasSubstr("Silent"))) << pace.count();
    }
}

TEST(Target, IsTheEndpointOfTheVariantThatWasAskedFor) {
    Radar radar;
    radar.name = "North";
    radar.streams.resize(2);
    radar.streams[0].imageStream = endpoint("236.6.7.48", 6032);
    radar.streams[1].imageStream = endpoint("236.6.7.51", 6035);
    radar.streams[1].infoDev[9] = {inet_addr("236.6.11.9"), htons(7009)};
    radar.tcp.emplace().imageStream = endpoint("10.20.1.1", 9000, kTcpClient);
    Situation situation{inet_addr("10.20.2.1"), "eth0", 2, 0, radar};

    struct Case {
        const char* name;
        int channel;
        int number;
        std::uint16_t port; // 0: no target
    };
    const Case cases[] = {
        {"North", Image, 0, 6032},
        {"North", Image, 1, 6035},
        {"North", Image, 2, 0},
        {"North", Image, -1, 0},
        {"North", ImageControl, 0, 0},
        {"North", InformationDevice + 9, 1, 7009},
        {"North", InformationDevice + 10, 1, 0},
        {"North", -1, 0, 0},
        {"North:TCP", Image, 0, 9000},
        {"North:TCP", Image, 1, 0},
        {"North:User", Image, 0, 0},
    };
    Why lacking;
    for (const Case& one : cases) {
        const auto found = targetOf(situation, one.name, one.channel, one.number, lacking);
        EXPECT_EQ(found ? ntohs(found->endpoint.port) : 0, one.port)
            << one.name << " " << one.channel << " " << one.number;
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
