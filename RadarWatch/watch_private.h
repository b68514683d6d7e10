/// @file
/// The implementation behind Watch.
#pragma once

#include <RadarWatch/inbox.h>
#include <RadarWatch/radar_engine.h>
#include <RadarWatch/radarwatch.h>

#include <UdpSocket/base/process.h>
#include <UdpSocket/base/thread.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

namespace radar {

namespace detail {

/// @throws std::system_error (EINVAL) where a forked child makes something on what its parent made
void requireOwn(const net::detail::ProcessBound& object, const char* name);

} // namespace detail

/// Belongs to its Watch, and for as long as they go on to the calls of next() in progress and the callback's
/// thread.
class WatchPrivate : public net::detail::ProcessBound {
public:
    explicit WatchPrivate(std::uint32_t configured);
    ~WatchPrivate() { end(); }

    /// @throws std::system_error, std::bad_alloc
    static void start(const std::shared_ptr<WatchPrivate>& self, Watch::Callback callback);
    /// The Watch is being destroyed.
    void end();

    bool hasCallback() const { return m_hasCallback; }
    std::optional<Event> wait(std::chrono::milliseconds timeout);
    const detail::Inbox& inbox() const { return m_inbox; }
    const std::shared_ptr<detail::RadarEngine>& engine() const {
        detail::requireOwn(*this, "Watch");
        return m_engine;
    }

private:
    void run(const Watch::Callback& callback);

    std::shared_ptr<detail::RadarEngine> m_engine; // none once this has ended
    detail::Inbox m_inbox;
    net::detail::Pause m_ending;
    bool m_hasCallback = false;
    std::thread m_thread; // the callback's
};

} // namespace radar
