/// @file
/// Where scenarios play whose calls and allocations fail: one interface, short times, and commands that do
/// nothing.
#pragma once

#include "announcement_bytes.h"
#include "each_failure.h"
#include "profile_directory.h"
#include "tcp_support.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

inline constexpr const char* kLocalAddress = "10.1.0.1";

class EachCall : public testing::TestWithParam<Scenario> {
protected:
    EachCall() {
        using namespace std::chrono_literals;
        net::detail::Timing timing;
        timing.search = {5ms, 5ms, 40ms, 200ms}; // seldom, since each starts threads and commands
        timing.addressLook = 50ms;
        timing.objection = 10ms;
        timing.receiverRepair = timing.radarLook = 20ms;
        timing.senderLook = 1h; // which fails without a word
        timing.checkerProbe = 15ms;
        timing.checkerPause = 5ms;
        timing.clientTick = timing.watchPass = timing.restartCarrier = 2ms;
        net::detail::setTiming(timing);
        EXPECT_EQ(std::system("mount -t tmpfs none /sys/class/net && mkdir -p /run/test/bin && cd "
                              "/run/test/bin && for name in sudo route ifconfig nmcli "
                              "service udhcpc; do ln -sf /bin/true $name; done"),
                  0);
        ::setenv("PATH", ("/run/test/bin:" + std::string(std::getenv("PATH"))).c_str(), 1);
    }

private:
    const ProfileDirectory m_profile{"[Local]\nMulticastLoop = true\n[Radar]\nTCPService = true\n"};
};

class EachAllocation : public EachCall {};

TEST_P(EachCall, MayFail) {
    failEachCall(GetParam());
}

TEST_P(EachAllocation, MayFail) {
    failEachAllocation(GetParam());
}

/// Sends to a group; nothing of it fails.
class Source {
public:
    /// @param from local address; 0: as the routes say
    Source(const char* group, unsigned short port, unsigned int from = 0)
        : m_group(net::detail::makeAddress(net::transAddr(group), port)) {
        const Sound sound;
        m_socket = net::detail::openSocket(SOCK_DGRAM);
        net::detail::setOption(m_socket, IPPROTO_IP, IP_MULTICAST_IF, net::detail::membership(0, from));
    }
    explicit Source(const wire::Group& group) : Source(group.address, group.port) {}

    static unsigned int local() { return net::transAddr(kLocalAddress); }
    void send(std::string_view bytes) const {
        const Sound sound;
        net::detail::sendTo(m_socket, bytes.data(), static_cast<int>(bytes.size()), m_group);
    }

private:
    const sockaddr_in m_group;
    net::detail::Descriptor m_socket;
};

/// Hears a group; nothing of it fails.
class GroupListener {
public:
    explicit GroupListener(const wire::Group& group) {
        const Sound sound;
        m_socket = net::detail::openSocket(SOCK_DGRAM | SOCK_NONBLOCK);
        const in_addr_t address = net::transAddr(group.address);
        EXPECT_TRUE(net::detail::setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1) &&
                    net::detail::bindTo(m_socket, net::detail::makeAddress(address, group.port)) &&
                    net::detail::joinGroup(m_socket, address, Source::local()));
    }
    /// Whether a datagram of that length waits; those before it are dropped.
    bool hears(ssize_t length) const {
        const Sound sound;
        char buffer[1024];
        for (;;) {
            const ssize_t count = net::detail::receiveFrom(m_socket, buffer, sizeof buffer).count;
            if (count == length || count < 0)
                return count == length;
        }
    }

private:
    net::detail::Descriptor m_socket;
};

/// A radar at the address that profile.ini names, which answers displays that connect; nothing of it fails.
class FixedRadar {
public:
    FixedRadar() {
        const Sound sound;
        m_profile.emplace("[Local]\nIP = 127.0.0.1\n[Radar]\nIP = 127.0.0.1\nTCPService = yes\n");
        m_listening.emplace(wire::kDiscovery.port);
        m_announcement = AnnouncementBytes(222, "ZQ-7").at(22, 1).at(30, 1); // extended, offers TCP
    }
    ~FixedRadar() {
        const Sound sound;
        m_profile.reset();
    }
    void answer() {
        const Sound sound;
        while (m_listening->isCalled())
            m_displays.push_back(m_listening->accept());
        for (const tcp_test::Peer& display : m_displays)
            if (display.read(2, MSG_DONTWAIT) == wire::text(wire::kQuery))
                display.send(m_announcement);
    }

private:
    std::optional<ProfileDirectory> m_profile;
    std::optional<tcp_test::Listening> m_listening;
    std::vector<tcp_test::Peer> m_displays;
    std::string m_announcement;
};

/// What a listener does that needs memory.
inline void takeMemory() {
    static thread_local std::string s_taken;
    std::string(100, 'x').swap(s_taken);
}

/// Between datagrams: the processor's queue of received ones is shared.
inline void pace() {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

inline std::string northsAnnouncement() {
    const Sound sound;
    return protocol::composeAnnouncement("North", 20, 2);
}
