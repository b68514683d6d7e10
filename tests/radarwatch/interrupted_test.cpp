// A signal each millisecond, on every thread that lets it and on the process: nothing is lost or reported.
#include "watch_fixture.h"

#include <RadarWatch/radarstream.h>

#include <UdpSocket/protocol/address_plan.h>

#include <arpa/inet.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

namespace {

using namespace std::chrono_literals;
using radar::Stream;

std::atomic<int> s_handled;

/// Makes a thread that lets no signal in.
template <class Body>
std::thread undisturbed(Body body) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(body);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

/// Interrupts while it lives; calls that a handler interrupts are not restarted.
class Interruptions {
public:
    Interruptions() {
        struct sigaction count {};
        count.sa_handler = [](int) { ++s_handled; };
        for (const int signal : {SIGPROF, SIGUSR1})
            EXPECT_EQ(::sigaction(signal, &count, nullptr), 0);
        m_thread = undisturbed([this] {
            for (; m_running; std::this_thread::sleep_for(1ms)) {
                for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
                    ::syscall(SYS_tgkill, ::getpid(), std::stoi(entry.path().filename()), SIGPROF);
                ::kill(::getpid(), SIGUSR1);
            }
        });
    }
    ~Interruptions() {
        m_running = false;
        m_thread.join();
    }

private:
    std::atomic<bool> m_running = true;
    std::thread m_thread;
};

TEST_F(WatchOnLan, InterruptedReadersLoseNothing) {
    constexpr std::uint32_t datagrams = 2000;
    const lab::Inside inside = m_display.enter();
    const Output output;
    const Interruptions interruptions;
    const auto watching = watch();
    const auto nextOf = [&] {
        std::optional<radar::Event> event;
        EXPECT_TRUE(comesTrue([&] { return (event = watching->next(-1ms)).has_value(); }));
        return event ? text(*event) : "nothing";
    };
    EXPECT_EQ(nextOf(), "local 10.20.2.1 (eth0)");
    auto north = serve(m_host1, "North", 1, 1);
    EXPECT_EQ(nextOf(), "North appeared, 1 at 10.20.1.1");

    std::atomic<std::uint32_t> called = 0;
    std::atomic<int> started = 0;
    const Stream calling(
        *watching, "North", radar::Image, [&](const radar::Datagram&) { ++called; },
        [&](const radar::StreamEvent&) { ++started; });
    Stream reading(*watching, "North", radar::Image);
    radar::Datagram received[Stream::kMostAtOnce];
    ASSERT_TRUE(comesTrue([&] {
        EXPECT_EQ(reading.read(received, 1, -1ms), 0U);
        return reading.nextEvent().has_value();
    }));
    ASSERT_TRUE(comesTrue([&] { return started == 1; }));
    std::thread sending = undisturbed([&] {
        const auto sender =
            makeIn<net::UdpSender>(m_host1, plan::announcedEndpoint(1, &RadarAddress::imageStream, 0),
                                   net::transAddr("10.20.1.1"), std::uint16_t{0});
        for (std::uint32_t i = 0; i < datagrams; ++i) {
            const std::uint32_t number = htonl(i);
            sender->sendData(reinterpret_cast<const char*>(&number), sizeof number);
            std::this_thread::sleep_for(1ms);
        }
    });
    std::uint32_t expected = 0;
    EXPECT_TRUE(comesTrue(
        [&] {
            const std::size_t count = reading.read(received, std::size(received), -1ms);
            for (std::size_t i = 0; i < count; ++i) {
                std::uint32_t number;
                std::memcpy(&number, received[i].data, sizeof number);
                EXPECT_EQ(ntohl(number), expected++);
            }
            return expected == datagrams;
        },
        60s));
    sending.join();
    EXPECT_TRUE(comesTrue([&] { return called == datagrams; }));

    north.reset();
    north = serve(m_host1, "North", 20, 1);
    EXPECT_THAT(nextOf(), testing::StartsWith("North changed, 20 at 10.20.1.1"));
    EXPECT_GT(s_handled, 1000);
    EXPECT_EQ(output.err(), "");
}

} // namespace
