#include <RadarWatch/watch_private.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace radar {

using namespace std::chrono_literals;
using net::detail::runStep;

void detail::requireOwn(const net::detail::ProcessBound& object, const char* name) {
    if (!object.inOwnProcess())
        throw std::system_error(EINVAL, std::generic_category(), std::string(name) + " of another process");
}

WatchPrivate::WatchPrivate(std::uint32_t configured) : m_engine(detail::RadarEngine::forAddress(configured)) {
    m_engine->join(m_inbox);
}

void WatchPrivate::start(const std::shared_ptr<WatchPrivate>& self, Watch::Callback callback) {
    self->m_hasCallback = true; // before its thread can ask
    self->m_thread = net::detail::startThread(
        "radar-events", [self, callback = std::move(callback)]() mutable { self->run(callback); });
}

void WatchPrivate::end() {
    m_inbox.close();
    m_ending.stop();
    if (m_thread.get_id() == std::this_thread::get_id())
        m_thread.detach();
    else if (m_thread.joinable())
        m_thread.join();
    if (m_engine == nullptr)
        return;
    m_engine->leave(m_inbox);
    m_engine.reset();
}

void WatchPrivate::run(const Watch::Callback& callback) {
    while (!m_inbox.isClosed())
        if (!runStep("RadarWatch: an event", [&] {
                if (const auto event = wait(-1ms))
                    callback(*event);
            }))
            m_ending.sleep(100ms); // until there is memory again
}

std::optional<Event> WatchPrivate::wait(std::chrono::milliseconds timeout) {
    const auto begin = std::chrono::steady_clock::now();
    for (;;) {
        if (auto event = m_inbox.take())
            return event;
        auto left = timeout;
        if (timeout >= 0ms)
            left = timeout -
                   std::chrono::floor<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        if (m_inbox.isClosed() || (timeout >= 0ms && left <= 0ms))
            return std::nullopt;
        pollfd ready{m_inbox.descriptor(), POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(std::clamp<std::int64_t>(left.count(), -1, INT_MAX))) < 0)
            return std::nullopt; // a signal handler ran
    }
}

Watch::Watch() : Watch(Options()) {}

Watch::Watch(const Options& options) : d(std::make_shared<WatchPrivate>(options.localAddress)) {}

Watch::Watch(Callback callback) : Watch(std::move(callback), Options()) {}

Watch::Watch(Callback callback, const Options& options) : Watch(options) {
    if (callback)
        WatchPrivate::start(d, std::move(callback));
}

Watch::~Watch() {
    if (d->inOwnProcess())
        d->end();
    else
        new (std::nothrow) std::shared_ptr<WatchPrivate>(d); // stays: what it waits for runs in the parent
}

std::optional<Event> Watch::next(std::chrono::milliseconds timeout) {
    const auto kept = d; // the Watch may be destroyed meanwhile
    return kept->inOwnProcess() && !kept->hasCallback() ? kept->wait(timeout) : std::nullopt;
}

int Watch::descriptor() const {
    return d->inOwnProcess() ? d->inbox().descriptor() : -1;
}

std::vector<Radar> Watch::radars() const {
    return d->inOwnProcess() ? d->engine()->radars(d->inbox()) : std::vector<Radar>();
}

std::optional<Radar> Watch::find(std::string_view name) const {
    return d->inOwnProcess() ? d->engine()->find(d->inbox(), name) : std::nullopt;
}

LocalAddress Watch::localAddress() const {
    return d->inOwnProcess() ? d->engine()->localAddress(d->inbox()) : LocalAddress();
}

bool Watch::renumber(std::string_view name) {
    return d->inOwnProcess() && d->engine()->renumber(name);
}

bool Watch::reset() {
    return d->inOwnProcess() && d->engine()->reset();
}

} // namespace radar
