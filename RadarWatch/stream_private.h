/// @file
/// The implementation behind radar::Stream.
#pragma once

#include <RadarWatch/arrival_statistics.h>
#include <RadarWatch/engine.h>
#include <RadarWatch/epoll_set.h>
#include <RadarWatch/inlet.h>
#include <RadarWatch/pool.h>
#include <RadarWatch/radarstream.h>
#include <RadarWatch/receive_batch.h>
#include <RadarWatch/sequence_counter.h>
#include <RadarWatch/stream_follower.h>

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/thread.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace radar {

/// On the engine's thread the follower decides, and sockets are opened and retired. One reader at a time
/// takes what they have received, the oldest first: a thread of the stream's own, a pool's, or the caller of
/// read().
class StreamPrivate final : public net::detail::ProcessBound,
                            public detail::Follower,
                            public std::enable_shared_from_this<StreamPrivate> {
public:
    StreamPrivate(std::string name, int channel, Stream::OnDatagram onDatagram, Stream::OnEvent onEvent,
                  const StreamOptions& options);

    /// Starts or finds the thread for callbacks, if there are any. @throws std::system_error, std::bad_alloc
    void start(const std::shared_ptr<PoolPrivate>& pool);
    /// Ends all but a callback on the calling thread. Comes behind Engine::unfollow.
    void stop();

    void onSituation(const detail::Situation& situation) override;
    void onTick(std::chrono::steady_clock::time_point now) override;

    std::size_t read(Datagram* datagrams, std::size_t count, std::chrono::milliseconds timeout);
    std::optional<StreamEvent> nextEvent();
    int descriptor();
    Statistics statistics() const;

    /// Takes what is there, without waiting, for a pool.
    void serve();

private:
    using Time = std::chrono::steady_clock::time_point;
    using InletPtr = std::shared_ptr<detail::Inlet>;

    // The engine's thread.
    void act(Time now);
    void open(Time now);
    bool putInUse(const InletPtr& inlet);
    void retireNewest();
    void renewMembership(Time now);
    detail::Arrivals arrivals();
    void post(std::vector<StreamEvent> events);

    // The reader.
    void run();
    bool beginReading();
    void endReading();
    std::size_t receive(std::size_t count, std::chrono::milliseconds timeout);
    int awaitChange(std::chrono::milliseconds timeout);
    int receiveFrom(detail::Inlet& inlet, std::size_t count, std::chrono::milliseconds timeout);
    void dropFront();
    void count(std::size_t datagrams);
    void deliver(std::size_t datagrams);
    void deliverEvents();

    bool registerSocket(const detail::Inlet& inlet) REQUIRES(m_mutex);
    void unregisterSocket(const detail::Inlet& inlet) REQUIRES(m_mutex);

    const std::string m_name;
    const int m_channel;
    const int m_number;
    const std::size_t m_receiveBuffer;
    const Stream::OnDatagram m_onDatagram;
    const Stream::OnEvent m_onEvent;

    // The engine's thread.
    detail::StreamFollower m_follower;
    InletPtr m_newest; // null: it is retired

    // The reader.
    detail::ReceiveBatch m_batch;
    InletPtr m_front;
    std::chrono::milliseconds m_frontTimeout{-1}; // that its socket was given

    std::atomic<bool> m_stopping = false;
    std::atomic<bool> m_inletsChanged = false; // beyond m_front
    std::atomic<bool> m_news = false;          // an event that no reader has looked at
    detail::Wakeup m_changed;                  // what these three say; signals end a wait for it

    mutable net::detail::Mutex m_mutex;
    net::detail::Condition m_readingEnded;
    std::deque<InletPtr> m_inlets GUARDED_BY(m_mutex);     // oldest first; all but the last are retired
    std::vector<StreamEvent> m_events GUARDED_BY(m_mutex); // oldest first
    unsigned m_missedEvents GUARDED_BY(m_mutex) = 0;
    detail::ArrivalStatistics m_arrivals GUARDED_BY(m_mutex);
    std::optional<detail::SequenceCounter> m_sequence GUARDED_BY(m_mutex);
    std::uint64_t m_cut GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_droppedHere GUARDED_BY(m_mutex) = 0; // by sockets that are closed
    std::uint64_t m_droppedAtInterface GUARDED_BY(m_mutex) = 0;
    std::thread::id m_reader GUARDED_BY(m_mutex); // a pool's thread, or the caller of read()
    std::unique_ptr<detail::EpollSet> m_ownSockets GUARDED_BY(m_mutex); // behind descriptor()
    detail::Wakeup m_eventsWait;                                        // in it

    std::shared_ptr<PoolPrivate> m_poolOwner;   // keeps the next one's thread running
    std::shared_ptr<detail::PoolThread> m_pool; // none: a thread of its own, or read()
    std::uint64_t m_poolNumber = 0;
    net::detail::SizedThread m_thread;
};

/// How tests, and what stands in for a LAN, make streams on an engine.
struct StreamDoor {
    static std::unique_ptr<Stream> stream(std::shared_ptr<detail::Engine> engine, const std::string& name,
                                          int channel, const StreamOptions& options,
                                          Stream::OnDatagram onDatagram = {}, Stream::OnEvent onEvent = {});
    static std::unique_ptr<Control> control(std::shared_ptr<detail::Engine> engine, const std::string& name,
                                            int channel, int number);
    static void start(Stream& stream, std::shared_ptr<detail::Engine> engine, const std::string& name,
                      int channel, Stream::OnDatagram onDatagram, Stream::OnEvent onEvent,
                      const StreamOptions& options);
    static void start(Control& control, std::shared_ptr<detail::Engine> engine, const std::string& name,
                      int channel, int number);
};

} // namespace radar
