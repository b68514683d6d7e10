#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

static_assert(sizeof(net::UdpChecker) == sizeof(void*));

constexpr const char* kGroup = "236.6.7.30";
constexpr unsigned short kPort = 6730;

class CountingListener : public net::iUdpCheckerListener {
public:
    void OnUdpCheckerIpFound(unsigned int localIp) override {
        std::lock_guard lock(m_mutex);
        m_lastIp = localIp;
        ++m_calls;
        m_changed.notify_all();
    }
    /// Waits for call number @p calls. @return the address of the last call, or "none"
    std::string waitForCall(int calls, std::chrono::seconds deadline = 30s) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, deadline, [&] { return m_calls >= calls; }) ? net::transAddr(m_lastIp)
                                                                                    : "none";
    }
    int calls() const {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    mutable std::mutex m_mutex; // guards everything below
    std::condition_variable m_changed;
    unsigned int m_lastIp = 0;
    int m_calls = 0;
};

bool succeeds(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

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
        for (const std::string cable : {"a", "b"}) {
            const std::string subnet = cable == "a" ? "10.1.0." : "10.2.0.";
            ASSERT_TRUE(succeeds("ip netns add " + cable + " && ip link add eth" + cable +
                                 " type veth peer name far netns " + cable + " && ip addr add " + subnet +
                                 "1/24 dev eth" + cable + " && ip link set eth" + cable + " up && ip -n " +
                                 cable + " addr add " + subnet + "2/24 dev far && ip -n " + cable +
                                 " link set far up && ip -n " + cable + " route add default dev far"));
        }
    }
};

TEST_F(UdpCheckerOnTwoInterfaces, FindsTheOneThatHearsTheTextAndTellsEachNewAddress) {
    CountingListener listener;
    CountingListener late;
    auto beacon = std::make_unique<Beacon>("a", "radar");
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&listener);
    EXPECT_EQ(listener.waitForCall(1), "10.1.0.1");

    checker.addListener(&late);
    EXPECT_EQ(late.calls(), 1) << "told at once";

    beacon = std::make_unique<Beacon>("b", "rad"); // the beginning of the text will do
    EXPECT_EQ(listener.waitForCall(2), "10.2.0.1");
    EXPECT_EQ(listener.calls(), 2);
}

TEST_F(UdpCheckerOnTwoInterfaces, OtherAndLongerTextsAreNotTheText) {
    CountingListener listener;
    Beacon other("a", "sonar");
    Beacon longer("b", std::string("radar\0", 6));
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&listener);
    EXPECT_EQ(listener.waitForCall(1, 4s), "none");
}

TEST_F(UdpCheckerOnTwoInterfaces, AListenerIsCalledAsOftenAsAddedAndRemovedAltogether) {
    CountingListener removed;
    CountingListener twice;
    net::UdpChecker checker(kGroup, kPort, "radar");
    checker.addListener(&removed);
    checker.addListener(&removed);
    checker.addListener(&twice);
    checker.addListener(&twice);
    checker.removeListener(&removed);
    Beacon beacon("b", "radar");
    EXPECT_EQ(twice.waitForCall(2), "10.2.0.1");
    EXPECT_EQ(removed.calls(), 0);
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
    EXPECT_THAT(errors, testing::Not(HasSubstr(kGroup)));
}

} // namespace
