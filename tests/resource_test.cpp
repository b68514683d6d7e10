// Descriptors run out and come back, standard streams are missing, and objects come and go.
#include "everything.h"
#include "faults.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "stopped_stream.h"

#include <UdpSocket/base/timing.h>
#include <UdpSocket/protocol/wire.h>

#include <malloc.h>
#include <sys/resource.h>

namespace {

/// Displays are set to the one interface, and receive hosts of this machine.
class Resources : public OneInterface {
protected:
    Resources() {
        net::detail::Timing timing;
        timing.search = {50ms, 20ms, 100ms, 50ms};
        timing.addressLook = 100ms;
        timing.receiverRepair = 200ms;
        timing.clientTick = timing.checkerPause = 50ms;
        net::detail::setTiming(timing);
    }

    static constexpr unsigned short kPort = 5002; // of a TCP server
    const ProfileDirectory m_profile{"[Local]\nIP = 10.1.0.1\nMulticastLoop = true\n"};
    const unsigned int m_local = net::transAddr("10.1.0.1");
    Recorder m_recorder;
};

TEST_F(Resources, ObjectsMadeWithoutDescriptorsWorkOnceSomeAreFree) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    std::unique_ptr<Everything> all;
    const std::string errors = errOf([&] {
        const rlimit none{0, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        all = std::make_unique<Everything>(&m_recorder, m_local, kPort);
        all->sender.sendData("lost", 4);
        all->sender.setMulticastLoop(true);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    });
    EXPECT_THAT(errors, HasSubstr("profile.ini: cannot be read (Too many open files), defaults are used\n"));

    EXPECT_TRUE(comesTrue(
        [&] {
            all->display.query();
            return testing::Value(all->display.getRadar(), Contains("North"));
        },
        60s));
    EXPECT_TRUE(comesTrue(
        [&] { return all->sender.sendData("heard", 5) == 5 && m_recorder.nextBytes(500ms) == "heard"; }));
    const Fault fault("accept4", EMFILE, 1, 2);
    EXPECT_GE(timeOf([&] {
                  EXPECT_TRUE(all->server.connect("127.0.0.1", kPort, 5));
                  EXPECT_TRUE(all->tcp.connectOnce());
                  EXPECT_TRUE(comesTrue([&] { return all->server.isConnected(); }));
              }),
              200ms)
        << "with a pause after each failed accept";
}

TEST_F(Resources, OutputWithoutStandardStreamsGoesIntoNoConnection) {
    const int saved = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    {
        Everything all(&m_recorder, m_local, kPort);
        EXPECT_TRUE(comesTrue([&] { return all.tcp.isConnected() && all.server.isConnected(); }));
        for (const int number : {STDIN_FILENO, STDOUT_FILENO})
            EXPECT_TRUE(comesTrue([&] { return ::fcntl(number, F_GETFD) == -1; })) << "a file read meanwhile";
    }
    EXPECT_EQ(::dup2(saved, STDOUT_FILENO), STDOUT_FILENO);
    ::close(saved);
}

TEST_F(Resources, FailureToListInterfacesIsPrintedWithoutTheLock) {
    const StoppedStream errors(stderr);
    const Fault fault("getifaddrs", EMFILE);
    std::thread prints([this] { net::localIfaName(m_local); });
    ASSERT_TRUE(comesTrue([&] { return fault.hit(); }));
    auto lists = std::async(std::launch::async, [this] { return net::localIfaName(m_local); });
    EXPECT_EQ(lists.wait_for(10s), std::future_status::ready);
    errors.fail();
    prints.join();
    EXPECT_EQ(lists.get(), "eth0");
}

TEST_F(Resources, InterfacesThatCannotBeListedHaveNotLostTheRadars) {
    const ProfileDirectory searching;
    const Output output;
    Addresses addresses;
    Addresses checked;
    MultiRadarClient client;
    client.addListener(&addresses);
    net::UdpChecker checker(wire::kBeacon.address, wire::kBeacon.port, "aabbccdd");
    checker.addListener(&checked);
    net::UdpSender beacons(wire::kBeacon.address, wire::kBeacon.port, m_local, 0);
    beacons.setMulticastLoop(true);
    const auto beat = [&] { return std::this_thread::sleep_for(10ms), beacons.sendData("aabbccdd", 8) == 8; };
    EXPECT_TRUE(comesTrue([&] { return beat() && addresses.reaches(1, 0ms) && checked.reaches(1, 0ms); }));
    {
        const Fault none("getifaddrs", EMFILE, 1, 1'000'000);
        EXPECT_TRUE(comesTrue([&] { return beat() && std::ranges::count(output.err(), '\n') >= 5; }));
    }
    for (const auto end = std::chrono::steady_clock::now() + 500ms; std::chrono::steady_clock::now() < end;)
        beat();
    EXPECT_THAT(addresses.all(), testing::ElementsAre("10.1.0.1"));
    EXPECT_THAT(checked.all(), testing::ElementsAre("10.1.0.1"));
}

/// As often as the environment variable CHURN_CYCLES says, or often enough for a test.
TEST_F(Resources, CreationAndDestructionLeakNothing) {
    const char* const text = std::getenv("CHURN_CYCLES");
    const size_t cycles = text != nullptr ? std::stoul(text) : 10;
    const Output output;
    const ProcessResources before = ProcessResources::now();
    size_t heap = 0;
    for (size_t i = 0; i <= cycles; ++i) {
        {
            Everything all(&m_recorder, m_local, kPort);
            all.socket.SetSendSockAddr(m_local, kGroup, 5000);
            all.sender.sendData("x", 1);
            all.tcp.asyncSendData("x", 1);
            all.display.query();
        }
        EXPECT_TRUE(comesTrue([&] {
            const ProcessResources now = ProcessResources::now();
            return now.descriptors <= before.descriptors && now.threads <= before.threads;
        }));
        while (m_recorder.next(0ms)) // nor keeps it anything itself
            continue;
        if (i == 0)
            heap = ::mallinfo2().uordblks; // the first time allocates what is kept
    }
    EXPECT_LT(::mallinfo2().uordblks, heap + 30000 + cycles);
}

} // namespace
