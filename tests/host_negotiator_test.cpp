#include "recorder.h"

#include <UdpSocket/base/timing.h>
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

/// A negotiator on host1, and on host2 a peer that receives from the group and sends to it.
class Negotiator : public testing::Test {
protected:
    static constexpr const char* kGroup = "236.6.7.4";
    static constexpr unsigned short kPort = 6768;

    Negotiator() {
        net::detail::Timing timing;
        timing.objection = 300ms;
        net::detail::setTiming(timing);
    }
    ~Negotiator() override { net::detail::setTiming({}); }

    std::unique_ptr<HostNegotiator> makeNegotiator() {
        return makeIn<HostNegotiator>(m_lan.node("host1"), nullptr, [this](std::uint8_t id) {
            m_loggedIn = id;
            ++m_logins;
        });
    }
    void send(const std::string& bytes) { m_sender->sendData(bytes.data(), static_cast<int>(bytes.size())); }
    std::string received() { return m_recorder.nextBytes(); }

    lab::Lan m_lan{{lab::radarHost(1), lab::radarHost(2)}};
    Recorder m_recorder;
    const lab::Node& m_peer = m_lan.node("host2");
    std::unique_ptr<net::UdpReceiver> m_receiver =
        makeIn<net::UdpReceiver>(m_peer, &m_recorder, 0U, kGroup, kPort, 64);
    std::unique_ptr<net::UdpSender> m_sender = makeIn<net::UdpSender>(m_peer, kGroup, kPort, 0U, 0);
    std::atomic<int> m_logins = 0;
    std::atomic<int> m_loggedIn = 0;
};

TEST_F(Negotiator, UncontestedLoginSendsTwoDatagrams) {
    const auto negotiator = makeNegotiator();
    EXPECT_GE(timeOf([&] { EXPECT_EQ(negotiator->syncLogin(20), 20); }), 600ms);
    EXPECT_EQ(m_loggedIn, 20) << "a synchronous login calls back, too";
    EXPECT_EQ(received(), message(kProbe, 20));
    EXPECT_EQ(received(), message(kConfirm, 20));
    EXPECT_EQ(m_recorder.nextBytes(kNothing), "nothing");

    EXPECT_EQ(outOf([&] { EXPECT_EQ(negotiator->syncLogin(30), 0); }), "syncLogin:Already login\n");
    EXPECT_EQ(outOf([&] { EXPECT_FALSE(negotiator->asyncLogin(30)); }), "asyncLogin:Already login\n");
}

TEST_F(Negotiator, HolderAnswersClaimsAndGivesItsIdUpOnAnObjection) {
    const auto negotiator = makeNegotiator();
    ASSERT_EQ(negotiator->syncLogin(1), 1);
    received(), received();
    send(message(kProbe, 40));
    EXPECT_EQ(received(), message(kObjection, 1));
    send(message(kObjection, 1)); // taken for its own, looped back
    send(message(kObjection, 1));
    EXPECT_EQ(received()[0], kProbe);
    EXPECT_TRUE(comesTrue([&] { return m_logins == 2; }));
    EXPECT_NE(m_loggedIn, 1);
}

TEST_F(Negotiator, RunningLoginEndsWithItsOwner) {
    net::detail::setTiming({});
    auto negotiator = makeNegotiator();
    ASSERT_TRUE(negotiator->asyncLogin(20));
    EXPECT_EQ(received(), message(kProbe, 20));
    EXPECT_LT(timeOf([&] { negotiator.reset(); }), 900ms) << "not a wait for objections";
    EXPECT_EQ(m_recorder.nextBytes(1500ms), "nothing");
    EXPECT_EQ(m_logins, 0);
}

} // namespace
