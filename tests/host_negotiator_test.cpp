#include "recorder.h"

#include <UdpSocket/hostnegotiator.h>

#include <lab/lan.h>

#include <gmock/gmock.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;

constexpr auto kNothing = 300ms;
constexpr char kProbe = 1;
constexpr char kConfirm = 2;
constexpr char kObjection = 3;

std::string message(char code, int id) {
    return {code, '\xA1', static_cast<char>(id), 1};
}

MATCHER(IsDrawn, "an id from 16 to 63") {
    return arg >= 16 && arg <= 63;
}

/// A negotiator on host1, and on host2 a peer that hears the group and speaks to it.
class Negotiator : public testing::Test {
protected:
    static constexpr const char* kGroup = "236.6.7.4";
    static constexpr unsigned short kPort = 6768;

    std::unique_ptr<HostNegotiator> makeNegotiator(const char* host = "host1") {
        return makeIn<HostNegotiator>(
            m_lan.node(host), [this] { ++m_resets; },
            [this](std::uint8_t id) {
                m_loggedIn = id;
                ++m_logins;
            });
    }
    void say(const std::string& bytes) { m_speaks->sendData(bytes.data(), static_cast<int>(bytes.size())); }
    std::string heard() { return m_recorder.nextBytes(); }

    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2)}};
    Recorder m_recorder;
    const lab::Node& m_peer = m_lan.node("host2");
    std::unique_ptr<net::UdpReceiver> m_hears =
        makeIn<net::UdpReceiver>(m_peer, &m_recorder, 0U, kGroup, kPort, 64);
    std::unique_ptr<net::UdpSender> m_speaks = makeIn<net::UdpSender>(m_peer, kGroup, kPort, 0U, 0);
    std::atomic<int> m_resets = 0;
    std::atomic<int> m_logins = 0;
    std::atomic<int> m_loggedIn = 0;
};

TEST_F(Negotiator, UncontestedLoginSendsTwoDatagrams) {
    const auto negotiator = makeNegotiator();
    EXPECT_GE(timeOf([&] { EXPECT_EQ(negotiator->syncLogin(20), 20); }), 2s);
    EXPECT_EQ(m_loggedIn, 20) << "a synchronous login calls back, too";
    EXPECT_EQ(heard(), message(kProbe, 20));
    EXPECT_EQ(heard(), message(kConfirm, 20));
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing");

    EXPECT_EQ(outOf([&] { EXPECT_EQ(negotiator->syncLogin(30), 0); }), "syncLogin:Already login\n");
    EXPECT_EQ(outOf([&] { EXPECT_FALSE(negotiator->asyncLogin(30)); }), "asyncLogin:Already login\n");
}

TEST_F(Negotiator, ObjectionInEitherWaitLeadsToAnotherId) {
    const auto objectedInTime = [this] { // within a second, which a busy machine may need another try for
        m_logins = 0;
        while (m_recorder.next(0ms)) {
        }
        const auto negotiator = makeNegotiator();
        EXPECT_TRUE(negotiator->asyncLogin(5)); // used as given
        EXPECT_FALSE(negotiator->asyncLogin(6)) << "logging in from the instant that a login is accepted";
        EXPECT_EQ(heard(), message(kProbe, 5));
        say(message(kObjection, 6)); // somebody else's
        say(message(kObjection, 5).substr(0, 3));
        say(message(kObjection, 5) + "x");
        EXPECT_EQ(heard(), message(kConfirm, 5));
        say(message(kObjection, 5));
        const std::string second = heard();
        if (second != message(kProbe, second[2]))
            return false;
        EXPECT_THAT(second[2], IsDrawn());
        say({kObjection, '\xA1', second[2], 77}); // the fourth byte is not looked at
        const std::string third = heard();
        return third == message(kProbe, third[2]) && // no confirm after an objection
               heard() == message(kConfirm, third[2]) && comesTrue([&] { return m_logins == 1; }) &&
               m_loggedIn == third[2];
    };
    EXPECT_TRUE(comesTrue(objectedInTime, 60s));
}

TEST_F(Negotiator, HolderGivesItsIdUpOnAnObjection) {
    const auto negotiator = makeNegotiator();
    ASSERT_EQ(negotiator->syncLogin(20), 20);
    say(message(kProbe, 20));
    say(message(kConfirm, 20));
    heard(), heard();
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing") << "only the holder of id 1 defends it";
    say(message(kObjection, 21));
    say(message(kObjection, 20));
    const std::string probe = heard();
    EXPECT_EQ(probe, message(kProbe, probe[2]));
    EXPECT_TRUE(comesTrue([&] { return m_logins == 2; }));
    EXPECT_THAT(m_loggedIn.load(), IsDrawn());
}

TEST_F(Negotiator, HolderOfIdOneObjectsToEveryClaim) {
    const auto negotiator = makeNegotiator();
    ASSERT_EQ(negotiator->syncLogin(1), 1);
    heard(), heard();
    say(message(kProbe, 40));
    EXPECT_EQ(heard(), message(kObjection, 1));
    say({kConfirm, '\xA1', 1, 2});
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing") << "the fourth byte names the id that is defended";
    say(message(kObjection, 1));
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing") << "taken for its own, looped back";
    say(message(kObjection, 1));
    EXPECT_EQ(heard()[0], kProbe) << "the second one is somebody's";
}

TEST_F(Negotiator, ResetRequestChangesNothingElseAndOtherMessagesNothingAtAll) {
    const auto negotiator = makeNegotiator();
    int resets = 0;
    for (int code = 0; code <= 0xFF; ++code) {
        for (const size_t length : {1U, 2U, 3U, 4U, 5U})
            if (code != 0x20 || length != 2)
                say(std::string{static_cast<char>(code), '\xA1', 0, 1, 0}.substr(0, length));
        say("\x20\xA2");
        if (code % 16 == 15) { // no more at once than the receiver has room for
            say("\x20\xA1");
            ++resets;
            ASSERT_TRUE(comesTrue([&] { return m_resets >= resets; }));
        }
    }
    EXPECT_EQ(m_resets, resets);
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing") << "nothing is sent before a login";
}

TEST_F(Negotiator, RunningLoginEndsWithItsOwner) {
    auto negotiator = makeNegotiator();
    ASSERT_TRUE(negotiator->asyncLogin(20));
    EXPECT_EQ(heard(), message(kProbe, 20));
    EXPECT_LT(timeOf([&] { negotiator.reset(); }), 900ms) << "not a wait for objections";
    EXPECT_EQ(m_recorder.nextBytes(1500ms), "nothing");
    EXPECT_EQ(m_logins, 0);
}

} // namespace
