#include <RadarWatch/stream_private.h>
#include <RadarWatch/watch_private.h>

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/socket.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace radar {

using namespace std::chrono_literals;
using net::detail::Lock;
using net::detail::runStep;
using std::chrono::milliseconds;

namespace {

constexpr std::size_t kEvents = 64;
constexpr std::size_t kInlets = 8;              // a radar may move while nobody reads
constexpr std::size_t kLargestDatagram = 65536; // no datagram is longer
constexpr milliseconds kWait = 500ms; // of a receive call, until it is seen whether there are events
constexpr milliseconds kFailurePause = 100ms;
constexpr milliseconds kWithoutEnd = -1ms;

/// Whether the socket for @p older can stand while the one for @p newer is made. It may have the port; and
/// on an interface that came back with its index it would take the newer membership along.
bool canStandBeside(const detail::Target& older, const detail::Target& newer) {
    const bool cameBack = older.interfaceIndex == newer.interfaceIndex &&
                          older.interfaceChange != newer.interfaceChange &&
                          older.localAddress == newer.localAddress;
    return newer.endpoint.type == detail::kUdp && !cameBack;
}

} // namespace

StreamPrivate::StreamPrivate(std::string name, int channel, Stream::OnDatagram onDatagram,
                             Stream::OnEvent onEvent, const StreamOptions& options)
    : m_name(std::move(name)), m_channel(channel), m_number(options.number),
      m_receiveBuffer(options.receiveBuffer), m_onDatagram(std::move(onDatagram)),
      m_onEvent(std::move(onEvent)),
      m_batch(std::clamp<std::size_t>(options.largestDatagram, 1, kLargestDatagram), Stream::kMostAtOnce) {
    if (options.sequence)
        m_sequence.emplace(*options.sequence);
    m_events.reserve(kEvents);
}

void StreamPrivate::start(const std::shared_ptr<PoolPrivate>& pool) {
    if (!m_onDatagram)
        return;
    if (pool) {
        m_poolOwner = pool;
        m_pool = pool->next();
        m_poolNumber = m_pool->add(shared_from_this());
    } else {
        m_thread = net::detail::SizedThread("radar-stream", detail::kCallbackStack,
                                            [self = shared_from_this()] { self->run(); });
    }
}

void StreamPrivate::stop() {
    {
        Lock lock(m_mutex);
        m_stopping = true;
        for (const InletPtr& inlet : m_inlets) {
            unregisterSocket(*inlet);
            net::detail::wakeReader(inlet->socket());
        }
    }
    m_changed.set();
    if (m_pool)
        m_pool->remove(m_poolNumber);
    m_thread.end();
    Lock lock(m_mutex);
    m_readingEnded.wait(lock, [this]() REQUIRES(m_mutex) {
        return m_reader == std::thread::id() || m_reader == std::this_thread::get_id();
    });
}

// ----------------------------------------------------------------------------------- the engine's thread

void StreamPrivate::onSituation(const detail::Situation& situation) {
    StreamEvent::Why lacking;
    auto target = detail::targetOf(situation, m_name, m_channel, m_number, lacking);
    m_follower.aim(std::move(target), lacking);
    act(std::chrono::steady_clock::now());
}

void StreamPrivate::onTick(Time now) {
    act(now);
}

void StreamPrivate::act(Time now) {
    switch (m_follower.step(now, arrivals())) {
    case detail::StreamFollower::Act::Open:
        open(now);
        break;
    case detail::StreamFollower::Act::Close:
        m_follower.closed();
        retireNewest();
        break;
    case detail::StreamFollower::Act::Rejoin:
        renewMembership(now);
        break;
    case detail::StreamFollower::Act::None:
        break;
    }
    post(m_follower.takeEvents());
}

detail::Arrivals StreamPrivate::arrivals() {
    const bool waiting = m_newest && m_newest->isReadable(); // asked first: what is taken meanwhile counts
    Lock lock(m_mutex);
    return {m_arrivals.datagrams(), m_arrivals.last(), m_arrivals.takeLongestGap(), waiting};
}

void StreamPrivate::open(Time now) {
    InletPtr inlet;
    int error = 0;
    const detail::Target& target = m_follower.target();
    if (m_newest && !canStandBeside(m_newest->target(), target)) {
        retireNewest();
        m_follower.lost();
    }
    try {
        inlet = detail::Inlet::open(target, m_receiveBuffer);
        error = errno;
    } catch (const std::system_error& refusal) { // no threads for TCP
        error = refusal.code().value();
    }
    if (inlet && !putInUse(inlet)) {
        error = errno;
        inlet.reset();
    }
    retireNewest(); // also without another: where it listens, the radar is no more
    m_newest = inlet;
    if (inlet)
        m_follower.opened(now);
    else
        m_follower.refused(error);
}

bool StreamPrivate::putInUse(const InletPtr& inlet) {
    InletPtr lost; // closed without the lock
    {
        Lock lock(m_mutex);
        m_inlets.push_back(inlet);
        if (!registerSocket(*inlet)) {
            m_inlets.pop_back();
            return false;
        }
        if (m_inlets.size() > kInlets) {
            const auto second = m_inlets.begin() + 1; // the first may be read just now
            lost = std::move(*second);
            m_inlets.erase(second);
            unregisterSocket(*lost);
            m_droppedHere += lost->droppedHere();
        }
        m_inletsChanged = true;
    }
    m_changed.set();
    return true;
}

void StreamPrivate::retireNewest() {
    if (m_newest)
        m_newest->retire();
    m_newest.reset();
}

void StreamPrivate::renewMembership(Time now) {
    const detail::Membership::Renewed renewed = m_newest->renew(now);
    switch (renewed.renewal) {
    case detail::Membership::Renewal::Done:
        m_follower.rejoined(now);
        break;
    case detail::Membership::Renewal::DataFlow:
        break;
    case detail::Membership::Renewal::OthersJoined:
        m_follower.othersJoined(renewed.others);
        break;
    case detail::Membership::Renewal::Lost:
        m_follower.lost();
        break;
    }
}

void StreamPrivate::post(std::vector<StreamEvent> events) {
    if (events.empty())
        return;
    {
        Lock lock(m_mutex);
        for (StreamEvent& event : events) {
            if (m_events.size() == kEvents) {
                m_events.erase(m_events.begin());
                ++m_missedEvents;
            }
            m_events.push_back(std::move(event)); // which needs no memory
        }
        m_news = true;
        m_eventsWait.set();
    }
    m_changed.set();
    if (m_pool)
        m_pool->signal(m_poolNumber);
}

// --------------------------------------------------------------------------------------------- the reader

void StreamPrivate::run() {
    while (!m_stopping) {
        deliverEvents();
        deliver(receive(Stream::kMostAtOnce, kWithoutEnd));
    }
}

void StreamPrivate::serve() {
    if (!beginReading())
        return;
    deliverEvents();
    deliver(receive(Stream::kMostAtOnce, 0ms));
    endReading();
}

std::size_t StreamPrivate::read(Datagram* datagrams, std::size_t count, milliseconds timeout) {
    if (!inOwnProcess() || m_onDatagram || count == 0 || !beginReading())
        return 0;
    const std::size_t received = receive(std::min(count, Stream::kMostAtOnce), timeout);
    for (std::size_t i = 0; i < received; ++i)
        datagrams[i] = m_batch.datagram(i);
    if (received == 0)
        m_news = false;
    endReading();
    return received;
}

bool StreamPrivate::beginReading() {
    Lock lock(m_mutex);
    if (m_stopping || m_reader != std::thread::id())
        return false;
    m_reader = std::this_thread::get_id();
    return true;
}

void StreamPrivate::endReading() {
    Lock lock(m_mutex);
    m_reader = std::thread::id();
    if (m_stopping)
        m_readingEnded.notify_all();
}

/// @return how many are in m_batch; 0: time is up, there is news, a signal interrupted, or it is the end
std::size_t StreamPrivate::receive(std::size_t count, milliseconds timeout) {
    milliseconds left = timeout;
    for (;;) {
        if (m_inletsChanged.exchange(false) || !m_front) {
            Lock lock(m_mutex);
            const InletPtr front = m_inlets.empty() ? nullptr : m_inlets.front();
            if (front != m_front)
                m_frontTimeout = kWithoutEnd;
            m_front = front;
        }
        if (m_stopping)
            return 0;
        const milliseconds wait = left < 0ms ? kWait : std::min(left, kWait);
        if (m_front) {
            const bool retired = m_front->isRetired();
            const int received = receiveFrom(*m_front, count, retired ? 0ms : wait);
            const int error = errno;
            if (received > 0) {
                this->count(static_cast<std::size_t>(received));
                return static_cast<std::size_t>(received);
            }
            if (retired) {
                dropFront();
                continue;
            }
            if (received < 0 && error == EINTR)
                return 0;
            if (m_stopping || m_front->isRetired())
                continue; // it was woken
            if (received < 0 && error != EAGAIN)
                awaitChange(std::min(wait, kFailurePause));
        } else if (wait > 0ms && !m_news) {
            const int changes = awaitChange(wait);
            if (changes < 0)
                return 0; // a signal handler ran
            if (changes > 0)
                continue;
        }
        if (m_news || left == 0ms)
            return 0;
        if (left > 0ms)
            left -= wait;
    }
}

/// @return more than 0: something has happened; 0: time is up; -1: errno
int StreamPrivate::awaitChange(milliseconds timeout) {
    m_changed.clear();
    if (m_stopping || m_news || m_inletsChanged)
        return 1;
    pollfd ready{m_changed.descriptor(), POLLIN, 0};
    return ::poll(&ready, 1, static_cast<int>(timeout.count()));
}

/// @return datagrams; 0: it was woken; -1: errno
int StreamPrivate::receiveFrom(detail::Inlet& inlet, std::size_t count, milliseconds timeout) {
    if (timeout > 0ms && timeout != m_frontTimeout) {
        if (!net::detail::setOption(inlet.socket(), SOL_SOCKET, SO_RCVTIMEO, net::detail::toTimeval(timeout)))
            return -1;
        m_frontTimeout = timeout;
    }
    int received = m_batch.receive(inlet.socket(), count, timeout > 0ms ? MSG_WAITFORONE : MSG_DONTWAIT);
    while (received > 0 && !m_batch.isDatagram(static_cast<std::size_t>(received) - 1))
        --received;
    return received;
}

/// Of a socket that is retired, everything has been received.
void StreamPrivate::dropFront() {
    const std::uint64_t here = m_front->droppedHere();
    std::uint64_t atInterface = 0;
    runStep("Stream: a count of drops", [&] { atInterface = m_front->droppedAtInterface(); });
    Lock lock(m_mutex);
    unregisterSocket(*m_front);
    m_droppedHere += here;
    m_droppedAtInterface += atInterface;
    m_inlets.pop_front();
    lock.unlock();
    m_front.reset(); // closed here
}

void StreamPrivate::count(std::size_t datagrams) {
    const auto clocks = net::detail::Clocks::now();
    Lock lock(m_mutex);
    for (std::size_t i = 0; i < datagrams; ++i) {
        m_arrivals.count(net::detail::steadyArrival(m_batch.arrival(i), clocks, m_arrivals.last()),
                         m_batch.size(i));
        m_cut += m_batch.isCut(i) ? 1 : 0;
        if (m_sequence)
            m_sequence->count(m_batch.data(i), m_batch.size(i));
    }
    m_front->noteData(m_arrivals.last());
}

void StreamPrivate::deliver(std::size_t datagrams) {
    for (std::size_t i = 0; i < datagrams && !m_stopping; ++i)
        runStep("Stream: a datagram", [&] { m_onDatagram(m_batch.datagram(i)); });
}

void StreamPrivate::deliverEvents() {
    if (!m_news.exchange(false))
        return;
    while (!m_stopping) {
        const std::optional<StreamEvent> event = nextEvent();
        if (!event)
            return;
        if (m_onEvent)
            runStep("Stream: an event", [&] { m_onEvent(*event); });
    }
}

// --------------------------------------------------------------------------------------------- any thread

std::optional<StreamEvent> StreamPrivate::nextEvent() {
    if (!inOwnProcess())
        return std::nullopt;
    Lock lock(m_mutex);
    if (m_events.empty())
        return std::nullopt;
    std::optional<StreamEvent> event(std::move(m_events.front()));
    event->missed = std::exchange(m_missedEvents, 0);
    m_events.erase(m_events.begin());
    if (m_events.empty())
        m_eventsWait.clear();
    return event;
}

int StreamPrivate::descriptor() {
    if (!inOwnProcess())
        return -1;
    Lock lock(m_mutex);
    if (m_ownSockets)
        return m_ownSockets->descriptor();
    m_ownSockets = std::make_unique<detail::EpollSet>();
    bool complete = m_ownSockets->add(m_eventsWait.descriptor(), 0);
    for (const InletPtr& inlet : m_inlets)
        complete = complete && (m_pool || registerSocket(*inlet));
    if (!complete) {
        const int error = errno;
        m_ownSockets.reset();
        throw std::system_error(error, std::generic_category(), "epoll_ctl");
    }
    return m_ownSockets->descriptor();
}

/// Where it is waited for by epoll. @return false when the system refuses (errno)
bool StreamPrivate::registerSocket(const detail::Inlet& inlet) {
    if (m_pool)
        return m_stopping || m_pool->sockets().add(inlet.socket().get(), m_poolNumber);
    return !m_ownSockets || m_ownSockets->add(inlet.socket().get(), 0);
}

void StreamPrivate::unregisterSocket(const detail::Inlet& inlet) {
    if (m_pool)
        m_pool->sockets().remove(inlet.socket().get());
    if (m_ownSockets)
        m_ownSockets->remove(inlet.socket().get());
}

Statistics StreamPrivate::statistics() const {
    Statistics statistics;
    if (!inOwnProcess())
        return statistics;
    std::vector<InletPtr> inlets;
    {
        Lock lock(m_mutex);
        m_arrivals.write(statistics, net::detail::coarseNow());
        statistics.cut = m_cut;
        statistics.droppedAtSocket = m_droppedHere;
        statistics.droppedAtInterface = m_droppedAtInterface;
        if (m_sequence) {
            statistics.missing = m_sequence->missing();
            statistics.repeated = m_sequence->repeated();
            statistics.reordered = m_sequence->reordered();
        }
        inlets.assign(m_inlets.begin(), m_inlets.end());
    }
    for (const InletPtr& inlet : inlets) {
        statistics.droppedAtSocket += inlet->droppedHere();
        statistics.droppedAtInterface += inlet->droppedAtInterface();
    }
    return statistics;
}

// ------------------------------------------------------------------------------------------------- Stream

void StreamDoor::start(Stream& stream, std::shared_ptr<detail::Engine> engine, const std::string& name,
                       int channel, Stream::OnDatagram onDatagram, Stream::OnEvent onEvent,
                       const StreamOptions& options) {
    if (options.pool)
        detail::requireOwn(*options.pool->d, "Pool");
    const std::shared_ptr<StreamPrivate> made(
        new StreamPrivate(name, channel, std::move(onDatagram), std::move(onEvent), options),
        &net::detail::destroy<StreamPrivate>);
    made->start(options.pool ? options.pool->d : nullptr);
    try {
        engine->follow(name, made);
    } catch (...) {
        made->stop();
        throw;
    }
    stream.m_engine = std::move(engine);
    stream.d = made;
}

std::unique_ptr<Stream> StreamDoor::stream(std::shared_ptr<detail::Engine> engine, const std::string& name,
                                           int channel, const StreamOptions& options,
                                           Stream::OnDatagram onDatagram, Stream::OnEvent onEvent) {
    std::unique_ptr<Stream> stream(new Stream);
    start(*stream, std::move(engine), name, channel, std::move(onDatagram), std::move(onEvent), options);
    return stream;
}

Stream::Stream(const Watch& watch, const std::string& name, int channel, const StreamOptions& options) {
    StreamDoor::start(*this, watch.d->engine(), name, channel, {}, {}, options);
}
Stream::Stream(const Watch& watch, const std::string& name, int channel, OnDatagram onDatagram,
               OnEvent onEvent, const StreamOptions& options) {
    StreamDoor::start(*this, watch.d->engine(), name, channel, std::move(onDatagram), std::move(onEvent),
                      options);
}

Stream::~Stream() {
    if (!d || !d->inOwnProcess())
        return;
    m_engine->unfollow(d.get());
    d->stop();
}

std::size_t Stream::read(Datagram* datagrams, std::size_t count, milliseconds timeout) {
    return d->read(datagrams, count, timeout);
}
std::optional<StreamEvent> Stream::nextEvent() {
    return d->nextEvent();
}
int Stream::descriptor() const {
    return d->descriptor();
}
Statistics Stream::statistics() const {
    return d->statistics();
}

} // namespace radar
