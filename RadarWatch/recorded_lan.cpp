#include <RadarWatch/recorded_lan.h>

#include <RadarWatch/radarrecording.h>

#include <UdpSocket/base/thread.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>
#include <UdpSocket/protocol/wire.h>

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace radar {

using net::detail::Descriptor;
using net::detail::Lock;

namespace {

using namespace std::chrono_literals;

constexpr auto kBeginning = 2s;               // hosts are asked once a second
constexpr auto kAnnouncing = 1s;              // as often as displays ask
constexpr auto kPatience = 1s;                // with a stream that takes nothing
constexpr int kBuffer = 1 << 20;              // bytes that may wait for a stream; the system may grant less
constexpr std::uint32_t kAddresses = 1 << 24; // 0.0.0.0/8, in which no interface is
constexpr recording::Time kSilence = std::chrono::seconds(protocol::RadarTable::kSilence);

/// The recordings of one process, by address.
class Registry : public net::detail::ProcessBound {
public:
    std::shared_ptr<RecordedLan> find(std::uint32_t address) {
        Lock lock(m_mutex);
        const auto found = m_recordings.find(address);
        return found == m_recordings.end() ? nullptr : found->second.lock();
    }
    void add(const std::shared_ptr<RecordedLan>& recording) {
        Lock lock(m_mutex);
        std::erase_if(m_recordings, [](const auto& known) { return known.second.expired(); });
        m_recordings[recording->localAddress()] = recording;
    }

private:
    net::detail::Mutex m_mutex;
    std::map<std::uint32_t, std::weak_ptr<RecordedLan>> m_recordings GUARDED_BY(m_mutex);
};

/// One that no recording has, as long as there were not millions of them.
std::uint32_t newAddress() {
    static std::atomic<std::uint32_t> s_last = 0;
    return htonl(++s_last % (kAddresses - 1) + 1);
}

NetAddress discoveryEndpoint() {
    return {::inet_addr(wire::kDiscovery.address), htons(wire::kDiscovery.port)};
}

std::pair<std::uint32_t, std::uint16_t> keyOf(const NetAddress& endpoint) {
    const std::uint32_t ip = endpoint.ip; // the record is packed: nothing may refer to its fields
    const std::uint16_t port = endpoint.port;
    return {ip, port};
}

} // namespace

bool RecordedLan::isRecorded(std::uint32_t localAddress) {
    return localAddress != 0 && ntohl(localAddress) < kAddresses;
}

std::shared_ptr<RecordedLan> RecordedLan::find(std::uint32_t localAddress) {
    return isRecorded(localAddress) ? net::detail::ofThisProcess<Registry>().find(localAddress) : nullptr;
}

std::shared_ptr<RecordedLan> RecordedLan::open(const std::string& path, double speed, unsigned streams) {
    if (!(speed >= 0) || std::isinf(speed))
        throw std::invalid_argument("openRecording: " + std::to_string(speed) + " is no speed");
    std::shared_ptr<RecordedLan> made(new RecordedLan(path, speed, streams),
                                      &net::detail::destroy<RecordedLan>);
    net::detail::ofThisProcess<Registry>().add(made);
    return made;
}

RecordedLan::RecordedLan(const std::string& path, double speed, unsigned streams)
    : m_path(path), m_speed(speed), m_streams(streams), m_localAddress(newAddress()), m_file(path) {
    lookAhead();
    m_thread = net::detail::startThread("radar-recorded", [this] { run(); });
}

RecordedLan::~RecordedLan() {
    m_ending = true;
    m_wakeup.set();
    m_thread.join();
}

/// Who is there at the first moment.
void RecordedLan::lookAhead() {
    recording::Blocks blocks(m_path);
    std::optional<recording::Time> first;
    try {
        while (const auto datagram = blocks.nextDatagram()) {
            if (!first)
                m_position = *(first = datagram->time);
            if (datagram->time > *first + kBeginning)
                return;
            keep({*first, datagram->source, datagram->destination, datagram->payload});
        }
    } catch (const recording::BrokenFile&) { // said when it comes to that
        if (blocks.error() != 0)
            throw std::system_error(blocks.error(), std::generic_category(), m_path);
    }
}

void RecordedLan::keep(const recording::Datagram& datagram) {
    if (keyOf(datagram.destination) != keyOf(discoveryEndpoint()))
        return;
    const auto announcement = protocol::readAnnouncement(datagram.payload, {});
    if (!announcement)
        return;
    m_announcements[std::string(announcement->name.view())] = {datagram.source, std::string(datagram.payload),
                                                               datagram.time};
}

Descriptor RecordedLan::listen(const NetAddress& endpoint, int flags,
                               const std::weak_ptr<const void>& stream) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0, ends) != 0)
        return Descriptor();
    Descriptor reader = net::detail::ownSocket(ends[0]);
    const auto listener = std::make_shared<Listener>(Listener{net::detail::ownSocket(ends[1]), stream});
    if (!reader.isOpen() || !listener->socket.isOpen() ||
        !net::detail::setOption(reader, SOL_SOCKET, SO_TIMESTAMPNS, 1) ||
        !net::detail::setOption(listener->socket, SOL_SOCKET, SO_SNDBUF, kBuffer)) {
        const int error = errno;
        reader.reset();
        errno = error;
        return reader;
    }
    {
        Lock lock(m_mutex);
        for (auto& [key, listeners] : m_listeners) // what is sent tells who has gone, but nothing may be sent
            if (key != keyOf(discoveryEndpoint()))
                std::erase_if(listeners, [](const auto& known) { return known->stream.expired(); });
        m_listeners[keyOf(endpoint)].push_back(listener);
    }
    if (keyOf(endpoint) == keyOf(discoveryEndpoint()))
        m_announceSoon = true;
    m_wakeup.set();
    return reader;
}

net::detail::Received RecordedLan::receiveFrom(const Descriptor& socket, char* buffer, int size) {
    detail::RecordedHeader header{};
    iovec parts[] = {{&header, sizeof header}, {buffer, static_cast<std::size_t>(size)}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    const ssize_t count = ::recvmsg(socket.get(), &message, 0);
    net::detail::Received received{};
    received.error = count < 0 ? errno : 0;
    received.count = count;
    if (count >= static_cast<ssize_t>(sizeof header)) {
        received.count -= static_cast<ssize_t>(sizeof header);
        received.source = net::detail::makeAddress(header.source, static_cast<unsigned short>(header.port));
    }
    return received;
}

// ---------------------------------------------------------------------------------------------- the thread

void RecordedLan::run() {
    try {
        net::detail::runStep("RadarWatch: the rest of a recording", [this] { play(); });
    } catch (const recording::BrokenFile& broken) {
        std::fprintf(stderr, "RadarWatch: recording ends early: %s\n", broken.what());
    }
    m_over = true;
}

void RecordedLan::play() {
    while (!isAwaited())
        if (!waitUntil(std::nullopt))
            return;
    const Clock::time_point start = Clock::now();
    const recording::Time first = m_position;
    while (const auto datagram = m_file.nextDatagram()) {
        m_position = std::max(m_position, datagram->time);
        Clock::time_point due = start;
        if (m_speed > 0)
            due += std::chrono::duration_cast<Clock::duration>((m_position - first) / m_speed);
        if (!waitUntil(due))
            return;
        net::detail::runStep("RadarWatch: a recorded datagram", [&] {
            keep(*datagram);
            deliver(*datagram);
        });
    }
}

/// Whether a Watch hears, and as many streams listen as it is to begin for.
bool RecordedLan::isAwaited() {
    Lock lock(m_mutex);
    std::size_t streams = 0;
    for (const auto& [key, listeners] : m_listeners)
        for (const auto& listener : listeners)
            streams += listener->stream.expired() ? 0 : 1;
    return m_listeners.contains(keyOf(discoveryEndpoint())) && streams >= m_streams;
}

/// Announces radars meanwhile. @param moment none: until something happens
/// @return false: this is being destroyed
bool RecordedLan::waitUntil(std::optional<Clock::time_point> moment) {
    for (bool waited = false; !m_ending; waited = true) {
        const auto now = Clock::now();
        if (m_announceSoon.exchange(false) || now >= m_nextAnnouncing) {
            m_nextAnnouncing = now + kAnnouncing;
            net::detail::runStep("RadarWatch: a recorded announcement", [this] { announce(); });
        }
        if (moment ? now >= *moment : waited)
            return true;
        rest(std::min(moment.value_or(m_nextAnnouncing), m_nextAnnouncing), -1);
    }
    return false;
}

/// Until then, until something happens, or there is room in a socket.
void RecordedLan::rest(Clock::time_point until, int socket) {
    const auto pause = std::max(std::chrono::nanoseconds(until - Clock::now()), 0ns);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(pause);
    const timespec limit{seconds.count(), static_cast<long>((pause - seconds).count())};
    pollfd ready[] = {{m_wakeup.descriptor(), POLLIN, 0}, {socket, POLLOUT, 0}};
    ::ppoll(ready, std::size(ready), &limit, nullptr);
    if (ready[0].revents != 0)
        m_wakeup.clear();
}

void RecordedLan::announce() {
    for (const auto& [name, announcement] : m_announcements)
        if (m_position - announcement.time < kSilence)
            deliver({m_position, announcement.source, discoveryEndpoint(), announcement.bytes});
}

void RecordedLan::deliver(const recording::Datagram& datagram) {
    Listeners listeners;
    {
        Lock lock(m_mutex);
        if (const auto found = m_listeners.find(keyOf(datagram.destination)); found != m_listeners.end())
            listeners = found->second;
    }
    for (const auto& listener : listeners)
        if (!send(*listener, datagram)) {
            Lock lock(m_mutex);
            std::erase(m_listeners[keyOf(datagram.destination)], listener);
        }
}

/// @return false: nobody listens there any more
bool RecordedLan::send(Listener& listener, const recording::Datagram& datagram) {
    detail::RecordedHeader header{datagram.time.count(), datagram.source.ip, ntohs(datagram.source.port)};
    std::string_view payload = datagram.payload;
    iovec parts[] = {{&header, sizeof header}, {const_cast<char*>(payload.data()), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = std::size(parts);
    for (;;) {
        if (::sendmsg(listener.socket.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            listener.takesNothing = false;
            return true;
        }
        if (errno == EPIPE || errno == ECONNREFUSED || errno == ECONNRESET || errno == ENOTCONN)
            return false;
        if (errno != EAGAIN || listener.takesNothing || !awaitRoom(listener)) {
            listener.takesNothing = errno == EAGAIN;
            ++m_dropped;
            return true;
        }
    }
}

/// @return false: there is none, and has not been for a while
bool RecordedLan::awaitRoom(const Listener& listener) {
    const auto end = Clock::now() + kPatience;
    pollfd room{listener.socket.get(), POLLOUT, 0};
    while (!m_ending && Clock::now() < end) {
        rest(end, room.fd);
        if (::poll(&room, 1, 0) > 0)
            return true;
    }
    errno = EAGAIN;
    return false;
}

// ----------------------------------------------------------------------------------------------- Recording

std::uint32_t Recording::localAddress() const {
    return d->localAddress();
}
bool Recording::isOver() const {
    return d->isOver();
}
std::uint64_t Recording::dropped() const {
    return d->dropped();
}

Recording openRecording(const std::string& path, double speed, unsigned streams) {
    Recording recording;
    recording.d = RecordedLan::open(path, speed, streams);
    return recording;
}

} // namespace radar
