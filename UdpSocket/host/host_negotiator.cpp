#include <UdpSocket/hostnegotiator.h>

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/scope_exit.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/protocol/negotiation.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr unsigned int kAnyInterface = 0;

std::uint64_t millisecondsSinceEpoch() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::floor<std::chrono::milliseconds>(now).count());
}

/// The negotiation with the threads that drive it: a login thread, made when it is first needed, and callers
/// of syncLogin. Only where a callback destroys the negotiator does it outlive that, until the callback's
/// thread lets go.
class Login {
public:
    using TimePoint = protocol::Negotiation::TimePoint;

    explicit Login(std::function<void(std::uint8_t)> onLogin)
        : m_onLogin(std::move(onLogin)),
          m_sender(net::detail::makeSender(wire::kNegotiation, kAnyInterface)) {}

    bool begin(std::uint8_t id);
    /// Has the login thread drive what was begun. @throws std::system_error and nothing was begun
    static void launch(const std::shared_ptr<Login>& self);
    /// Drives on the caller's thread. @return the id held in the end, 0 when end() came first
    std::uint8_t run();
    /// @return whether the reset request has come
    static bool receive(const std::shared_ptr<Login>& self, std::string_view datagram);
    /// Ends every thread that drives. A callback in progress is waited for, unless it is the caller.
    void end();
    /// Calls nobody from here on. Inside a callback that exits: a caller of syncLogin is not to go on.
    void fallSilent();

private:
    static int ensureThread(const std::shared_ptr<Login>& self) REQUIRES(self->m_mutex);
    std::uint8_t drive(bool untilHeld);
    void call(std::uint8_t id) EXCLUDES(m_mutex);
    bool isCalling(std::thread::id thread) const REQUIRES(m_mutex) {
        return std::ranges::find(m_calling, thread) != m_calling.end();
    }

    const std::function<void(std::uint8_t)> m_onLogin;
    std::unique_ptr<net::UdpSender> m_sender; // until end()

    net::detail::Mutex m_mutex;
    net::detail::Condition m_changed;
    protocol::Negotiation m_negotiation GUARDED_BY(m_mutex){protocol::IdDraw(millisecondsSinceEpoch()),
                                                            net::detail::timing().objection};
    bool m_ended GUARDED_BY(m_mutex) = false;
    bool m_silent GUARDED_BY(m_mutex) = false;
    int m_driving GUARDED_BY(m_mutex) = 0;                      // threads in drive()
    std::vector<std::thread::id> m_calling GUARDED_BY(m_mutex); // those of them that are in the callback
    std::thread m_thread GUARDED_BY(m_mutex);
};

bool Login::begin(std::uint8_t id) {
    net::detail::Lock lock(m_mutex);
    return m_negotiation.login(id);
}

/// @return 0, or the system's reason for having none
int Login::ensureThread(const std::shared_ptr<Login>& self) {
    if (self->m_thread.joinable() ||
        net::detail::launchThread(self->m_thread, "radar-login", [self] { self->drive(false); }))
        return 0;
    return errno;
}

void Login::launch(const std::shared_ptr<Login>& self) {
    net::detail::Lock lock(self->m_mutex);
    if (const int error = ensureThread(self); error != 0) {
        self->m_negotiation.withdraw();
        throw std::system_error(error, std::generic_category(), "HostNegotiator: no thread");
    }
}

std::uint8_t Login::run() {
    return drive(true);
}

std::uint8_t Login::drive(bool untilHeld) {
    {
        net::detail::Lock lock(m_mutex);
        ++m_driving;
    }
    const net::detail::ScopeExit leave([this] {
        net::detail::Lock lock(m_mutex);
        --m_driving;
        m_changed.notify_all();
    });
    net::detail::Lock lock(m_mutex);
    while (!m_ended) {
        const auto due = m_negotiation.due();
        const auto now = TimePoint::clock::now();
        if (!due || now < *due) {
            const auto changed = [&]() REQUIRES(m_mutex) { return m_ended || m_negotiation.due() != due; };
            if (due)
                m_changed.wait_until(lock, *due, changed);
            else
                m_changed.wait(lock, changed);
            continue;
        }
        const auto output = m_negotiation.advance(now);
        lock.unlock();
        if (output.message)
            net::detail::runStep("HostNegotiator: a message",
                                 [&] { net::detail::send(*m_sender, wire::text(*output.message)); });
        if (output.loggedIn && untilHeld) {
            call(*output.loggedIn); // what it throws is the caller's
            return *output.loggedIn;
        }
        if (output.loggedIn)
            net::detail::runStep("HostNegotiator: a callback", [&] { call(*output.loggedIn); });
        lock.lock();
    }
    return 0;
}

void Login::call(std::uint8_t id) {
    if (!m_onLogin)
        return;
    const std::thread::id self = std::this_thread::get_id();
    {
        net::detail::Lock lock(m_mutex);
        if (m_ended || m_silent)
            return;
        m_calling.push_back(self);
    }
    const net::detail::ScopeExit called([&] {
        net::detail::Lock lock(m_mutex);
        std::erase(m_calling, self);
    });
    m_onLogin(id);
}

bool Login::receive(const std::shared_ptr<Login>& self, std::string_view datagram) {
    protocol::Negotiation::Output output;
    int error = 0;
    std::uint8_t kept = 0;
    {
        net::detail::Lock lock(self->m_mutex);
        protocol::Negotiation& negotiation = self->m_negotiation;
        const bool held = negotiation.state() == protocol::Negotiation::State::Holding;
        output = negotiation.receive(datagram);
        if (held && negotiation.due() && (error = ensureThread(self)) != 0) {
            negotiation.keep();
            kept = negotiation.hostId();
        }
    }
    self->m_changed.notify_all();
    if (error != 0)
        std::fprintf(stderr, "HostNegotiator: keeps host id %d: no thread to negotiate another (%s)\n", kept,
                     std::strerror(error));
    if (output.message)
        net::detail::send(*self->m_sender, wire::text(*output.message));
    return output.reset;
}

void Login::end() {
    const std::thread::id self = std::this_thread::get_id();
    std::thread thread;
    {
        net::detail::Lock lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
        const int own = isCalling(self) ? 1 : 0;
        m_changed.wait(lock, [&]() REQUIRES(m_mutex) { return m_driving == own; });
        thread.swap(m_thread);
    }
    m_sender.reset();
    if (!thread.joinable())
        return;
    if (thread.get_id() == self)
        thread.detach(); // it is inside the callback that ends us, and touches only what it holds
    else
        thread.join();
}

void Login::fallSilent() {
    net::detail::Lock lock(m_mutex);
    m_silent = true;
}

} // namespace

class HostNegotiatorPrivate : public net::iUdpDataListener, public net::detail::ProcessBound {
public:
    HostNegotiatorPrivate(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin)
        : m_onReset(std::move(onReset)), m_login(std::make_shared<Login>(std::move(onLogin))),
          m_receiver(net::detail::makeReceiver(this, wire::kNegotiation, kAnyInterface)) {}

    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        if (!Login::receive(m_login, {data, static_cast<std::size_t>(length)}) || !m_onReset)
            return;
        const Call call(*this);
        m_onReset();
    }
    virtual ~HostNegotiatorPrivate() {
        m_receiver.reset(); // no objection starts another login from here on
        m_login->end();
    }

    void fallSilent() { m_login->fallSilent(); }
    bool asyncLogin(std::uint8_t id) {
        if (!begin(id, __func__))
            return false;
        Login::launch(m_login);
        return true;
    }
    std::uint8_t syncLogin(std::uint8_t id) {
        const std::shared_ptr<Login> login = m_login; // a callback may destroy this object
        return begin(id, __func__) ? login->run() : std::uint8_t{0};
    }

private:
    bool begin(std::uint8_t id, const char* function) {
        if (m_login->begin(id))
            return true;
        std::printf("%s:Already login\n", function);
        return false;
    }

    const std::function<void()> m_onReset;
    const std::shared_ptr<Login> m_login;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

HostNegotiator::HostNegotiator(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin)
    : d(new HostNegotiatorPrivate(std::move(onReset), std::move(onLogin))) {}
HostNegotiator::~HostNegotiator() {
    if (d->inOwnProcess() && d->isCalling()) // where it is left
        d->fallSilent();
    net::detail::destroy(d);
}
bool HostNegotiator::asyncLogin(std::uint8_t id) {
    return d->asyncLogin(id);
}
std::uint8_t HostNegotiator::syncLogin(std::uint8_t id) {
    return d->syncLogin(id);
}
