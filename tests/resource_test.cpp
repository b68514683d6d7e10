// Descriptors and threads run out and come back: the library reports it in a line, and works again.
#include "everything.h"
#include "faults.h"
#include "one_interface.h"
#include "profile_directory.h"
#include "recorder.h"
#include "tcp_support.h"
#include "wait.h"

#include <UdpSocket/base/timing.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// Displays are set to the one interface, and receive hosts of this machine.
class Resources : public OneInterface {
protected:
    static bool lists(MultiRadarClient& display, const char* name) {
        return comesTrue(
            [&] {
                display.query();
                const auto names = display.getRadar();
                return std::find(names.begin(), names.end(), name) != names.end();
            },
            60s);
    }

    Resources() {
        net::detail::Timing timing;
        timing.search = {200ms, 100ms, 300ms, 200ms};
        timing.addressLook = 100ms;
        timing.receiverRepair = 200ms;
        timing.clientTick = 50ms;
        net::detail::setTiming(timing);
    }

    const ProfileDirectory m_profile{"[Local]\nIP = 10.1.0.1\nMulticastLoop = true\n"};
    const unsigned int m_local = net::transAddr("10.1.0.1");
    Recorder m_recorder;
};

TEST_F(Resources, ObjectsMadeWithoutDescriptorsWorkOnceSomeAreFree) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP()
        << "UndefinedBehaviorSanitizer opens pipes to look at objects, and aborts without descriptors";
#endif
    const unsigned short port = tcp_test::freePort();
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    std::string errors;
    std::unique_ptr<Everything> all;
    {
        const Output output;
        const rlimit none{0, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        all = std::make_unique<Everything>(&m_recorder, m_local, port);
        all->sender.sendData("lost", 4);
        all->sender.setMulticastLoop(true);
        EXPECT_TRUE(comesTrue([&] { return output.err().find("UdpReceiverPrivate") != std::string::npos; }));
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        errors = output.err();
    }
    EXPECT_THAT(errors, HasSubstr("(236.1.2.3,5000)>:\n\tfunction[socket],code[24,Too many open files]\n"));
    EXPECT_THAT(errors, HasSubstr("profile.ini: cannot be read (Too many open files), defaults are used\n"));
    EXPECT_THAT(errors, HasSubstr("init,226,(0.0.0.0,0)>:\n\tfunction[socket],code[24,"));

    EXPECT_TRUE(lists(all->display, "North"));
    EXPECT_TRUE(comesTrue(
        [&] { return all->sender.sendData("heard", 5) == 5 && m_recorder.nextBytes(500ms) == "heard"; }));
    EXPECT_TRUE(all->server.connect("127.0.0.1", port, 5));
    EXPECT_TRUE(comesTrue([&] { return all->tcp.isConnected(); }));
}

TEST_F(Resources, OutputWithoutStandardStreamsGoesIntoNoConnection) {
    const int saved = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(STDOUT_FILENO);
    {
        Everything all(&m_recorder, m_local, tcp_test::freePort());
        EXPECT_TRUE(comesTrue([&] { return all.tcp.isConnected() && all.server.isConnected(); }));
        EXPECT_TRUE(comesTrue([] { return ::fcntl(STDOUT_FILENO, F_GETFD) == -1; }))
            << "a file read meanwhile";
    }
    EXPECT_EQ(::dup2(saved, STDOUT_FILENO), STDOUT_FILENO);
    ::close(saved);
}

TEST_F(Resources, DisplayMadeWithoutThreadsListsRadarsOnceSomeAreFree) {
    m_profile.write(
        "[Local]\nIP = 10.9.9.9\nMulticastLoop = true\n"); // no interface has it: nothing is received
    const HostServer host("North", 16, 2);
    const Output output;
    MultiRadarClient display;
    {
        const Fault fault("pthread_create", EAGAIN, 1, Fault::kAll);
        display.setLocalIP(m_local);
        // Reported when the address is set, and at the first repair.
        const std::string refused = "function[thread],code[11,";
        EXPECT_TRUE(comesTrue([&] {
            const std::string text = output.err();
            return text.find(refused) != text.rfind(refused);
        }));
        display.query();
        EXPECT_TRUE(display.getRadar().empty());
    }
    EXPECT_TRUE(lists(display, "North"));
}

/// The environment variable CHURN_CYCLES, or few enough for a test.
int cycles() {
    const char* const text = std::getenv("CHURN_CYCLES");
    return text != nullptr ? std::stoi(text) : 25;
}

TEST_F(Resources, CreationAndDestructionLeakNothing) {
    const unsigned short port = tcp_test::freePort();
    const std::pair<const char*, std::function<void()>> classes[] = {
        {"UdpSocket",
         [&] {
             net::UdpSocket socket(&m_recorder, 64);
             socket.SetSendSockAddr(m_local, kGroup, 5000);
             socket.SetGroupRecvSockAddr(m_local, kGroup, 5000);
         }},
        {"UdpSender", [&] { net::UdpSender(kGroup, 5000, m_local, 0).sendData("x", 1); }},
        {"UdpReceiver", [&] { net::UdpReceiver(&m_recorder, 0, kGroup, 5000, 64); }},
        {"UdpChecker", [&] { net::UdpChecker(kGroup, 5000, "radar"); }},
        {"TcpServer and TcpClient",
         [&] {
             net::TcpServer server(nullptr);
             EXPECT_TRUE(server.connect("127.0.0.1", port, 5));
             net::TcpClient client(nullptr, "127.0.0.1", port, 0);
             EXPECT_TRUE(client.connectOnce());
             client.asyncSendData("x", 1);
         }},
        {"MultiRadarClient", [&] { MultiRadarClient().query(); }},
        {"HostServer", [&] { HostServer("North", 16, 2); }},
        {"HostNegotiator", [&] { HostNegotiator(nullptr, nullptr).asyncLogin(16); }},
        {"tNetIPHelper", [&] { net::tNetIPHelper(false, "eth9", "10.5.0.9", "255.255.255.0"); }},
    };
    const auto holdsAtMost = [](const ProcessResources& most) {
        const ProcessResources now = ProcessResources::now();
        return now.descriptors <= most.descriptors && now.threads <= most.threads;
    };
    const ProcessResources before = ProcessResources::now();
    for (const auto& [name, live] : classes) {
        size_t growth = 0;
        {
            const Output output;
            const ProcessResources most = ProcessResources::now();
            const auto settle = [&] { comesTrue([&] { return holdsAtMost(most); }); };
            live(); // the first time allocates what is kept
            settle();
            const size_t heap = ::mallinfo2().uordblks;
            for (int i = 0; i < cycles(); ++i)
                live(), settle();
            growth = ::mallinfo2().uordblks - std::min(heap, ::mallinfo2().uordblks);
        }
        EXPECT_LT(growth, 10000U + 10U * static_cast<size_t>(cycles())) << name;
        EXPECT_TRUE(comesTrue([&] { return holdsAtMost(before); })) << name;
    }
}

} // namespace
