#include "wait.h"

#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kGroup = "236.6.7.30";
constexpr unsigned short kPort = 6730;

class Addresses : public net::iUdpCheckerListener {
public:
    void OnUdpCheckerIpFound(unsigned int localIp) override {
        std::lock_guard lock(m_mutex);
        m_heard.emplace_back(net::transAddr(localIp));
    }
    std::vector<std::string> heard() const {
        std::lock_guard lock(m_mutex);
        return m_heard;
    }
    bool hears(size_t count, std::chrono::seconds deadline = 30s) const {
        return comesTrue([&] { return heard().size() >= count; }, deadline);
    }

private:
    mutable std::mutex m_mutex; // guards m_heard
    std::vector<std::string> m_heard;
};

/// Sends a text again and again from the far end of a cable, until it is destroyed.
class Beacon {
public:
    Beacon(std::string cable, std::string text)
        : m_thread([this, cable = std::move(cable), text = std::move(text)] {
              const int network = ::open(("/run/netns/" + cable).c_str(), O_RDONLY | O_CLOEXEC);
              ASSERT_EQ(::setns(network, CLONE_NEWNET), 0); // of this thread alone
              ::close(network);
              const net::UdpSender sender(kGroup, kPort, 0, 0);
              while (!m_done) {
                  sender.sendData(text.data(), static_cast<int>(text.size()));
                  std::this_thread::sleep_for(50ms);
              }
          }) {}
    ~Beacon() {
        m_done = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_done = false;
    std::thread m_thread;
};

/// Two cables, "a" with 10.1.0.1 and "b" with 10.2.0.1 at this end; each far end is a network of its own.
class UdpCheckerOnTwoInterfaces : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(std::system(R"(set -e
            cable() {
                ip netns add $1
                ip link add eth$1 type veth peer name far netns $1
                ip addr add $2.1/24 dev eth$1; ip link set eth$1 up
                ip -n $1 addr add $2.2/24 dev far; ip -n $1 link set far up
                ip -n $1 route add default dev far
            }
            cable a 10.1.0
            cable b 10.2.0)"),
                  0);
    }
};

TEST_F(UdpCheckerOnTwoInterfaces, FindsTheOneThatHearsTheTextAndTellsEachListenerEachNewAddress) {
    Addresses twice;
    Addresses late;
    Addresses removed;
    std::optional<Beacon> beacon(std::in_place, "a", "radar");
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&twice);
    checker.addListener(&twice);
    checker.addListener(&removed);
    checker.addListener(&removed);
    checker.removeListener(&removed);
    ASSERT_TRUE(twice.hears(2));
    checker.addListener(&late);
    EXPECT_THAT(late.heard(), ElementsAre("10.1.0.1")) << "told at once";

    beacon.emplace("b", "rad"); // the beginning of the text will do
    ASSERT_TRUE(late.hears(2));
    EXPECT_THAT(late.heard(), ElementsAre("10.1.0.1", "10.2.0.1"));
    EXPECT_THAT(twice.heard(), ElementsAre("10.1.0.1", "10.1.0.1", "10.2.0.1", "10.2.0.1"));
    EXPECT_THAT(removed.heard(), IsEmpty());
}

TEST_F(UdpCheckerOnTwoInterfaces, OtherAndLongerTextsAreNotTheText) {
    Addresses addresses;
    Beacon other("a", "sonar");
    Beacon longer("b", std::string("radar\0", 6));
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&addresses);
    EXPECT_FALSE(addresses.hears(1, 4s));
}

TEST_F(UdpCheckerOnTwoInterfaces, AFailedProbeIsReportedAndEndsAloneAndDestructionIsQuick) {
    testing::internal::CaptureStderr();
    const auto before = std::chrono::steady_clock::now();
    {
        net::UdpChecker noGroup("10.9.9.9", kPort, "radar");
        std::this_thread::sleep_for(200ms); // let the probes of this one begin, and fail
        net::UdpChecker probing(kGroup, kPort, "radar");
        std::this_thread::sleep_for(200ms); // and those of this one wait
    }
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1500ms)
        << "neither the probes' 2 s nor the pause's 5 s";
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_THAT(errors, testing::ContainsRegex("SocketError<UdpSocket/udpsocket.cpp,operator\\(\\),[0-9]+,"
                                               "\\(10.9.9.9,6730\\)>:\n\tfunction\\[setsockopt::"
                                               "IP_ADD_MEMBERSHIP\\],code\\[22,"));
    EXPECT_THAT(errors, testing::Not(testing::HasSubstr(kGroup)));
}

} // namespace
