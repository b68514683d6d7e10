#include <RadarWatch/inlet.h>

#include <RadarWatch/recorded_lan.h>
#include <RadarWatch/system_file.h>
#include <RadarWatch/tcp_feed.h>

#include <UdpSocket/base/socket.h>

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <sstream>
#include <utility>

namespace radar::detail {

namespace {

using net::detail::setOption;

constexpr const char* kInterfaces = "/proc/thread-self/net/dev";

bool askForBuffer(const net::detail::Descriptor& socket, std::size_t bytes) {
    return setOption(socket, SOL_SOCKET, SO_RCVBUF,
                     static_cast<int>(std::min<std::size_t>(bytes, INT_MAX / 2)));
}

} // namespace

std::shared_ptr<Inlet> Inlet::open(const Target& target, std::size_t receiveBuffer) {
    std::shared_ptr<Inlet> inlet(new Inlet);
    inlet->m_target = target;
    inlet->m_droppedBefore = countInterfaceDrops(readSystemFile(kInterfaces), target.device);
    bool opened;
    if (RecordedLan::isRecorded(target.localAddress))
        opened = openRecorded(inlet, target);
    else
        opened = target.endpoint.type == kUdp ? inlet->openUdp(target, receiveBuffer)
                                              : inlet->openTcp(target, receiveBuffer);
    const int error = errno;
    if (!opened)
        inlet.reset();
    errno = error;
    return inlet;
}

bool Inlet::openRecorded(const std::shared_ptr<Inlet>& inlet, const Target& target) {
    const std::shared_ptr<RecordedLan> recording = RecordedLan::find(target.localAddress);
    errno = recording ? EPROTONOSUPPORT : EADDRNOTAVAIL;
    if (recording && target.endpoint.type == kUdp)
        inlet->m_socket = recording->listen(target.endpoint, 0, inlet);
    return inlet->m_socket.isOpen();
}

bool Inlet::openUdp(const Target& target, std::size_t receiveBuffer) {
    m_socket = net::detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen() || !setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1) ||
        !askForBuffer(m_socket, receiveBuffer) || !setOption(m_socket, SOL_SOCKET, SO_TIMESTAMPNS, 1) ||
        !setOption(m_socket, IPPROTO_IP, IP_MULTICAST_ALL, 0))
        return false;
    // Kernels before 5.7 want a privilege for this; the membership names the interface as well.
    if (!net::detail::bindToDevice(m_socket, target.device) && errno != EPERM)
        return false;
    if (!net::detail::bindTo(m_socket,
                             net::detail::makeAddress(target.endpoint.ip, ntohs(target.endpoint.port))))
        return false;
    if (target.isGroup())
        m_membership =
            Membership::join(m_socket, target.endpoint.ip, target.localAddress, target.interfaceIndex);
    return !target.isGroup() || m_membership;
}

bool Inlet::openTcp(const Target& target, std::size_t receiveBuffer) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return false;
    m_socket = net::detail::ownSocket(ends[0]);
    net::detail::Descriptor feed = net::detail::ownSocket(ends[1]);
    if (!m_socket.isOpen() || !feed.isOpen() || !askForBuffer(m_socket, receiveBuffer))
        return false;
    m_feed = TcpFeed::open(target, std::move(feed));
    return m_feed != nullptr;
}

Inlet::~Inlet() = default;

void Inlet::retire() {
    m_retired = true;
    if (m_membership)
        m_membership->leave();
    if (m_feed)
        m_feed->end();
    net::detail::wakeReader(m_socket);
}

bool Inlet::isReadable() const {
    pollfd ready{m_socket.get(), POLLIN, 0};
    return ::poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN) != 0;
}

std::uint64_t Inlet::droppedHere() const {
    std::uint32_t counters[SK_MEMINFO_VARS]{};
    socklen_t length = sizeof counters;
    if (::getsockopt(m_socket.get(), SOL_SOCKET, SO_MEMINFO, counters, &length) != 0)
        return 0; // none is known
    return counters[SK_MEMINFO_DROPS];
}

std::uint64_t Inlet::droppedAtInterface() const {
    const std::uint64_t dropped = countInterfaceDrops(readSystemFile(kInterfaces), m_target.device);
    return dropped - std::min(dropped, m_droppedBefore); // an interface that was replaced counts from zero
}

// Inter-|   Receive                                                |  Transmit
//  face |bytes    packets errs drop fifo frame compressed multicast|bytes ...
//   eth0:   1000       10    0    0    0     0          0         0 ...
std::uint64_t countInterfaceDrops(const std::string& text, const std::string& device) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        const std::size_t begin = line.find_first_not_of(' ');
        if (colon == std::string::npos || line.substr(begin, colon - begin) != device)
            continue;
        std::istringstream fields(line.substr(colon + 1));
        std::uint64_t bytes = 0;
        std::uint64_t packets = 0;
        std::uint64_t errors = 0;
        std::uint64_t dropped = 0;
        std::uint64_t overrun = 0;
        if (fields >> bytes >> packets >> errors >> dropped >> overrun)
            return dropped + overrun;
    }
    return 0;
}

} // namespace radar::detail
