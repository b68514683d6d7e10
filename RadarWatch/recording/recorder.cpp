#include <RadarWatch/recording/recorder.h>

#include <RadarWatch/recording/group_socket.h>

#include <UdpSocket/base/thread.h>

#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <system_error>

namespace radar::recording {

namespace {

namespace sockets = net::detail;
using Steady = std::chrono::steady_clock;

constexpr std::size_t kLargest = 65536;   // a datagram
constexpr std::size_t kChunk = 256 << 10; // bytes that are handed over at once
constexpr int kRound = 100;               // milliseconds after which something is handed over at the latest
constexpr std::chrono::milliseconds
    kSorting(20);                             // the kernel may queue what it stamped earlier a little later
constexpr std::chrono::milliseconds kPace(1); // between rounds: one wake-up for what came meanwhile
constexpr int kReceiveBuffer = 4 << 20;       // bytes; the system may grant less
constexpr int kBatchesOfOne = 16;             // batches of one socket before the others have their turn
constexpr std::size_t kGroups = 1024;         // that may have something at once; a full plan has hundreds
constexpr std::uint64_t kEnd = 0;             // the number of m_ending beside those of the sockets

Time wallClock() {
    return std::chrono::duration_cast<Time>(std::chrono::system_clock::now().time_since_epoch());
}

Time stampOf(const msghdr& message) {
    msghdr header = message;
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item))
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SO_TIMESTAMPNS) {
            timespec stamp;
            std::memcpy(&stamp, CMSG_DATA(item), sizeof stamp);
            return std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
        }
    return wallClock();
}

/// @throws std::system_error when there is none (errno)
sockets::Descriptor own(int descriptor) {
    if (descriptor == -1)
        throw std::system_error(errno, std::generic_category(), "recording");
    return sockets::Descriptor(descriptor);
}

} // namespace

Recorder::Recorder(Writer::Options options, std::function<void()> failed)
    : m_ready(own(::epoll_create1(EPOLL_CLOEXEC))), m_ending(own(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_buffer(kBatch * kLargest), m_writer(
                                       std::move(options), [this] { return closing(); }, std::move(failed)) {
    if (!add(m_ending, kEnd))
        throw std::system_error(errno, std::generic_category(), "recording");
    m_thread = sockets::startThread("radar-record", [this] { run(); });
}

void Recorder::finish() {
    if (!m_thread.joinable())
        return;
    ::eventfd_write(m_ending.get(), 1); // can neither fail nor wait
    m_thread.join();
    m_writer.finish();
}

/// @return false when the system refuses (errno)
bool Recorder::add(const sockets::Descriptor& descriptor, std::uint64_t number) {
    epoll_event event{EPOLLIN, {}};
    event.data.u64 = number;
    return ::epoll_ctl(m_ready.get(), EPOLL_CTL_ADD, descriptor.get(), &event) == 0;
}

std::size_t Recorder::interfaceNumber(const std::string& name) {
    const auto known = std::ranges::find(m_interfaces, name, &Interface::name);
    if (known != m_interfaces.end())
        return static_cast<std::size_t>(known - m_interfaces.begin());
    std::string blocks = m_interfaceBlocks + interfaceBlock(name);
    m_inChunkOf.resize(m_interfaces.size() + 1);
    m_interfaces.push_back({name, {}}); // the last that needs memory
    m_interfaceBlocks = std::move(blocks);
    return m_interfaces.size() - 1;
}

std::vector<Recorder::Refusal> Recorder::listenTo(const std::set<Place>& places) {
    std::map<std::string, Device> devices; // that are there
    for (const Place& place : places)
        if (!devices.contains(place.interface))
            if (const unsigned int index = ::if_nametoindex(place.interface.c_str()))
                devices[place.interface] = {index, m_links ? m_links->removals(index) : 0};
    std::vector<Place> wanted;
    {
        sockets::Lock lock(m_mutex);
        std::erase_if(m_places, [&](const auto& entry) REQUIRES(m_mutex) {
            const auto socket = m_sockets.find(entry.second);
            const auto device = devices.find(entry.first.interface);
            if (places.contains(entry.first) && device != devices.end() &&
                device->second == socket->second.device)
                return false;
            empty(socket->second); // what it has heard belongs to the recording
            countDrops(socket->second);
            m_sockets.erase(socket);
            return true;
        });
        for (const Place& place : places)
            if (!m_places.contains(place))
                wanted.push_back(place);
    }
    std::vector<Refusal> refused;
    for (const Place& place : wanted) { // joining may take the system a while
        Socket socket;
        socket.device = devices[place.interface]; // as it was before
        socket.group = {place.ip, place.port};
        socket.descriptor = openGroup(place.interface, socket.group, kReceiveBuffer);
        if (!socket.descriptor.isOpen()) {
            refused.push_back({place, errno});
            continue;
        }
        sockets::Lock lock(m_mutex);
        socket.interface = interfaceNumber(place.interface);
        if (!add(socket.descriptor, ++m_lastSocket)) {
            refused.push_back({place, errno});
            continue;
        }
        std::map<Place, std::uint64_t> known{{place, m_lastSocket}}; // both, or none where memory runs out
        std::map<std::uint64_t, Socket> added;
        added.emplace(m_lastSocket, std::move(socket));
        m_places.merge(known);
        m_sockets.merge(added);
    }
    return refused;
}

Time Recorder::now() {
    sockets::Lock lock(m_mutex);
    return timeOfNow();
}

Time Recorder::timeOf(Steady::time_point moment) const {
    return m_start.wall + (moment - m_start.steady);
}

Time Recorder::timeOfNow() {
    return timeOf(Steady::now() + asleep());
}

/// How long the machine has slept since the start.
std::chrono::nanoseconds Recorder::asleep() {
    m_asleep = std::max(m_asleep, sockets::timeAsleep());
    return m_asleep - m_asleepBefore;
}

void Recorder::comment(const std::string& text) {
    sockets::Lock lock(m_mutex);
    m_comments += (m_comments.empty() ? "" : "\n") + text;
}

void Recorder::takeTcp(const NetAddress& peer, std::string_view bytes) {
    sockets::Lock lock(m_mutex);
    appendTcpBlock(m_chunk.blocks, {timeOfNow(), peer, {}, bytes});
    ++m_tcpInChunk;
    if (m_chunk.blocks.size() >= kChunk)
        hand();
}

void Recorder::run() {
    epoll_event events[kGroups];
    std::uint64_t ready[kGroups];
    auto handed = Steady::now();
    for (bool ending = false; !ending;) {
        const int count = ::epoll_wait(m_ready.get(), events, std::size(events), kRound);
        for (int i = 0; i < count; ++i) {
            ready[i] = events[i].data.u64;
            ending = ending || ready[i] == kEnd;
        }
        sockets::runStep("recording: datagrams", [&] {
            sockets::Lock lock(m_mutex);
            if (ending)
                for (auto& [number, socket] : m_sockets)
                    empty(socket);
            round({ready, static_cast<std::size_t>(std::max(count, 0))});
            if (ending)
                record(m_waiting.size());
            const auto now = Steady::now();
            if (ending || now - handed >= std::chrono::milliseconds(kRound)) {
                hand();
                handed = now;
            }
        });
        if (m_ranOut.exchange(false)) // without the lock: the terminal may stand still
            sockets::reportOutOfMemory("recording: a datagram");
        if (count > 0 && !ending)
            std::this_thread::sleep_for(kPace);
    }
}

/// Takes what has arrived at these sockets, but for those that are ahead of one that has more. What was taken
/// a while ago is recorded, in the order of time, as far as everything older has come out of its socket, too.
void Recorder::round(std::span<const std::uint64_t> ready) {
    const auto limit = Steady::now() - kSorting;
    Time complete = Time::max();
    for (const std::uint64_t number : ready) {
        const auto found = m_sockets.find(number);
        if (found == m_sockets.end()) // closed meanwhile
            continue;
        Socket& socket = found->second;
        const bool isAhead = timeOf(socket.last) > m_complete;
        if (isAhead || !drain(socket))
            complete = std::min(complete, timeOf(socket.last));
    }
    m_complete = complete;
    sort();
    std::size_t count = m_waiting.size();
    while (count > 0 && (m_waiting[count - 1].taken > limit || m_waiting[count - 1].time > m_complete))
        --count;
    record(count);
}

/// Mostly what came is the newest, and in order: then nothing moves.
void Recorder::sort() {
    const auto fresh = std::ranges::is_sorted_until(m_waiting, {}, &Waiting::time);
    if (fresh == m_waiting.end())
        return;
    std::ranges::stable_sort(fresh, m_waiting.end(), {}, &Waiting::time);
    const auto first = std::ranges::upper_bound(m_waiting.begin(), fresh, fresh->time, {}, &Waiting::time);
    std::ranges::inplace_merge(first, fresh, m_waiting.end(), {}, &Waiting::time);
}

/// @return false: it has more
bool Recorder::drain(Socket& socket) {
    for (int batch = 0; batch < kBatchesOfOne; ++batch)
        if (receive(socket) < kBatch)
            return true;
    return false;
}

/// Takes all that has arrived by now.
void Recorder::empty(Socket& socket) {
    const Time now = timeOfNow();
    while (!drain(socket) && timeOf(socket.last) < now)
        continue;
}

/// One batch. @return how many datagrams it had
std::size_t Recorder::receive(Socket& socket) {
    mmsghdr messages[kBatch]{};
    iovec parts[kBatch];
    sockaddr_in sources[kBatch];
    alignas(cmsghdr) char control[kBatch][CMSG_SPACE(sizeof(timespec))];
    for (std::size_t i = 0; i < kBatch; ++i) {
        parts[i] = {&m_buffer[i * kLargest], kLargest};
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = &sources[i];
        header.msg_namelen = sizeof sources[i];
        header.msg_iov = &parts[i];
        header.msg_iovlen = 1;
        header.msg_control = control[i];
        header.msg_controllen = sizeof control[i];
    }
    const int count = ::recvmmsg(socket.descriptor.get(), messages, kBatch, MSG_DONTWAIT, nullptr);
    if (count <= 0)
        return 0; // nothing there, or an interface that went down, which listenTo() looks after
    const auto now = Steady::now();
    auto clocks = sockets::Clocks::now();
    clocks.steady += asleep();
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
        try {
            socket.last = sockets::steadyArrival(stampOf(messages[i].msg_hdr), clocks, socket.last);
            m_waiting.push_back({timeOf(socket.last),
                                 socket.interface,
                                 {sources[i].sin_addr.s_addr, sources[i].sin_port},
                                 socket.group,
                                 std::string(&m_buffer[i * kLargest], messages[i].msg_len),
                                 now});
        } catch (const std::bad_alloc&) {
            dropForWantOfMemory(socket.interface);
        }
    return static_cast<std::size_t>(count);
}

void Recorder::countDrops(Socket& socket) {
    std::uint32_t memory[SK_MEMINFO_VARS]{};
    socklen_t length = sizeof memory;
    if (::getsockopt(socket.descriptor.get(), SOL_SOCKET, SO_MEMINFO, memory, &length) != 0)
        return;
    const std::uint32_t fresh = memory[SK_MEMINFO_DROPS] - socket.dropped;
    socket.dropped += fresh;
    drop(socket.interface, fresh);
    m_interfaces[socket.interface].statistics.droppedBySystem += fresh;
    m_counts.droppedBySystem += fresh;
}

void Recorder::drop(std::size_t interface, std::uint64_t count) {
    Statistics& statistics = m_interfaces[interface].statistics;
    statistics.arrived += count;
    statistics.dropped += count;
    m_counts.dropped += count;
}

void Recorder::dropForWantOfMemory(std::size_t interface) {
    m_ranOut = true;
    drop(interface, 1);
}

/// Makes blocks of the first that wait.
void Recorder::record(std::size_t count) {
    for (; count > 0; --count) {
        const Waiting waiting = std::move(m_waiting.front());
        m_waiting.pop_front();
        try {
            append(waiting);
        } catch (const std::bad_alloc&) {
            dropForWantOfMemory(waiting.interface);
        }
        if (m_chunk.blocks.size() >= kChunk)
            hand();
    }
}

/// Makes a block of it, and counts it; or leaves all as it was, where memory runs out.
void Recorder::append(const Waiting& waiting) {
    m_commentsInChunk.reserve(m_commentsInChunk.size() + 1 + m_comments.size());
    appendDatagramBlock(m_chunk.blocks, static_cast<std::uint32_t>(waiting.interface),
                        {waiting.time, waiting.source, waiting.destination, waiting.payload}, m_comments);
    if (!m_commentsInChunk.empty() && !m_comments.empty())
        m_commentsInChunk += '\n';
    m_commentsInChunk += m_comments;
    m_comments.clear();
    ++m_inChunk.datagrams;
    m_inChunk.bytes += waiting.payload.size();
    ++m_inChunkOf[waiting.interface];
}

/// Hands the chunk to the writer.
void Recorder::hand() {
    if (m_chunk.blocks.empty())
        return;
    m_chunk.interfaces = m_interfaceBlocks;
    const bool taken = m_writer.give(m_chunk);
    if (!taken) // first: where there is no memory for that, the chunk stays for the next time
        m_comments =
            m_commentsInChunk + (m_commentsInChunk.empty() || m_comments.empty() ? "" : "\n") + m_comments;
    for (std::size_t i = 0; i < m_interfaces.size(); ++i) {
        Statistics& statistics = m_interfaces[i].statistics;
        statistics.arrived += m_inChunkOf[i];
        statistics.dropped += taken ? 0 : m_inChunkOf[i];
        m_inChunkOf[i] = 0;
    }
    if (taken) {
        m_counts.datagrams += m_inChunk.datagrams;
        m_counts.bytes += m_inChunk.bytes;
    } else {
        m_counts.dropped += m_inChunk.datagrams + m_tcpInChunk;
    }
    m_inChunk = {};
    m_tcpInChunk = 0;
    m_commentsInChunk.clear();
    m_chunk = {};
}

Recorder::Counts Recorder::counts() {
    sockets::Lock lock(m_mutex);
    for (auto& [number, socket] : m_sockets)
        countDrops(socket);
    return m_counts;
}

/// What ends a file: the statistics, and with the last one the comments that are left.
Chunk Recorder::closing() {
    sockets::Lock lock(m_mutex);
    for (auto& [number, socket] : m_sockets)
        countDrops(socket);
    Chunk chunk{m_interfaceBlocks, {}};
    const Time now = timeOfNow();
    for (std::size_t i = 0; i < m_interfaces.size(); ++i)
        appendStatisticsBlock(chunk.blocks, static_cast<std::uint32_t>(i), now, m_interfaces[i].statistics,
                              i + 1 == m_interfaces.size() ? m_comments : "");
    return chunk;
}

} // namespace radar::recording
