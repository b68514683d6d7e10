#include <UdpSocket/hostnegotiator.h>

#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/detail/wire.h>
#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr auto kObjectionTime = 1s; // how long others may object to a probe, and again to a confirm
constexpr std::uint16_t kFirstDrawnId = 16;
constexpr std::uint16_t kLastDrawnId = 63;
constexpr unsigned int kAnyInterface = 0;

/// What the protocol knows of one host. The negotiator and its login threads own it together, so that a login
/// that is cut short by destruction still finds it.
///
///       login started           nobody objected
///     Out ------------> LoggingIn --------------> LoggedIn
///                        ^     | objection: next id   |
///                        |_____|                      | objection: next id, new login
///                        |____________________________|
class Negotiation : public std::enable_shared_from_this<Negotiation> {
public:
    Negotiation(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin)
        : m_onReset(std::move(onReset)), m_onLogin(std::move(onLogin)),
          m_sender(net::detail::makeSender(wire::kNegotiation, kAnyInterface)) {}

    /// @return false when a login was started before
    bool begin(std::uint8_t id, const char* function);
    /// Negotiates until an id is held. @return it, or 0 when the negotiator was destroyed meanwhile
    std::uint8_t login();
    /// Runs login() on a thread of its own, which ends with the login.
    void launchLogin();
    /// Undoes begin() after a launch that failed.
    void abandonBegin();
    void onDatagram(std::string_view message);
    /// Ends a running login; no callback starts afterwards, and one in progress is waited for.
    void end();

private:
    enum class LoginState { Out, LoggingIn, LoggedIn };

    void send(const wire::Code& code, std::uint8_t id) const {
        const wire::Negotiation message{code, id};
        m_sender->sendData(reinterpret_cast<const char*>(&message), sizeof message);
    }
    void onClaim(std::uint8_t fourthByte);
    void onObjection(std::uint8_t id);
    std::uint8_t drawId() REQUIRES(m_mutex) { return static_cast<std::uint8_t>(m_idRange(m_engine)); }
    bool opposed() const {
        net::detail::Lock lock(m_mutex);
        return !m_unopposed;
    }

    const std::function<void()> m_onReset;
    const std::function<void(std::uint8_t)> m_onLogin;
    const std::unique_ptr<net::UdpSender> m_sender;
    net::detail::Pause m_pause;

    mutable net::detail::Mutex m_mutex;
    std::minstd_rand0 m_engine GUARDED_BY(m_mutex){static_cast<std::minstd_rand0::result_type>(
        std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now())
            .time_since_epoch()
            .count())};
    std::uniform_int_distribution<std::uint16_t> m_idRange GUARDED_BY(m_mutex){kFirstDrawnId, kLastDrawnId};
    std::uint8_t m_hostId GUARDED_BY(m_mutex) = 0; // claimed or held
    LoginState m_loginState GUARDED_BY(m_mutex) = LoginState::Out;
    bool m_unopposed GUARDED_BY(m_mutex) = false;
    bool m_replied GUARDED_BY(m_mutex) = false; // the next objection to our id is our own, looped back
    int m_callbacks GUARDED_BY(m_mutex) = 0;    // logins whose onLogin is running
    bool m_ended GUARDED_BY(m_mutex) = false;
    net::detail::Condition m_callbackDone;
};

bool Negotiation::begin(std::uint8_t id, const char* function) {
    net::detail::Lock lock(m_mutex);
    if (m_loginState != LoginState::Out) {
        std::printf("%s:Already login\n", function);
        return false;
    }
    m_hostId = id;
    m_loginState = LoginState::LoggingIn;
    return true;
}

void Negotiation::abandonBegin() {
    net::detail::Lock lock(m_mutex);
    m_loginState = LoginState::Out;
}

std::uint8_t Negotiation::login() {
    std::uint8_t id = 0;
    for (bool held = false; !held;) {
        {
            net::detail::Lock lock(m_mutex);
            id = m_hostId;
            m_unopposed = true;
        }
        send(wire::kProbe, id);
        if (!m_pause.sleep(kObjectionTime))
            return 0;
        if (!opposed()) {
            send(wire::kConfirm, id);
            if (!m_pause.sleep(kObjectionTime))
                return 0;
        }
        net::detail::Lock lock(m_mutex);
        held = m_unopposed;
        if (!held)
            m_hostId = drawId();
        else if (m_ended)
            return 0;
        else {
            m_loginState = LoginState::LoggedIn;
            ++m_callbacks;
        }
    }
    if (m_onLogin)
        m_onLogin(id);
    {
        net::detail::Lock lock(m_mutex);
        --m_callbacks;
    }
    m_callbackDone.notify_all();
    return id;
}

void Negotiation::launchLogin() {
    net::detail::startThread([self = shared_from_this()] { self->login(); }).detach();
}

void Negotiation::onDatagram(std::string_view message) {
    if (message == wire::text(wire::kReset) && m_onReset)
        m_onReset();
    if (message.size() != sizeof(wire::Negotiation))
        return;
    wire::Negotiation received;
    std::memcpy(&received, message.data(), sizeof received);
    if (received.code == wire::kProbe || received.code == wire::kConfirm)
        onClaim(received.one);
    else if (received.code == wire::kObjection)
        onObjection(received.hostId);
}

void Negotiation::onClaim(std::uint8_t fourthByte) {
    std::uint8_t id;
    {
        net::detail::Lock lock(m_mutex);
        // The fourth byte, always 1, and not the id that is claimed: only the holder of id 1 defends it.
        if (m_loginState != LoginState::LoggedIn || fourthByte != m_hostId)
            return;
        m_replied = true;
        id = m_hostId;
    }
    send(wire::kObjection, id);
}

void Negotiation::onObjection(std::uint8_t id) {
    {
        net::detail::Lock lock(m_mutex);
        if (id != m_hostId || m_loginState == LoginState::Out)
            return;
        if (m_loginState == LoginState::LoggingIn) {
            m_unopposed = false;
            return;
        }
        if (std::exchange(m_replied, false))
            return;
        m_hostId = drawId();
        m_loginState = LoginState::LoggingIn;
    }
    try {
        launchLogin();
    } catch (const std::system_error& error) {
        net::detail::Lock lock(m_mutex);
        std::fprintf(stderr, "HostNegotiator: keeps host id %d: no thread to negotiate another (%s)\n", id,
                     error.what());
        m_hostId = id;
        m_loginState = LoginState::LoggedIn;
    }
}

void Negotiation::end() {
    m_pause.stop();
    net::detail::Lock lock(m_mutex);
    m_ended = true;
    m_callbackDone.wait(lock, [this]() REQUIRES(m_mutex) { return m_callbacks == 0; });
}

} // namespace

class HostNegotiatorPrivate : public net::iUdpDataListener {
public:
    HostNegotiatorPrivate(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin)
        : m_negotiation(std::make_shared<Negotiation>(std::move(onReset), std::move(onLogin))),
          m_receiver(net::detail::makeReceiver(this, wire::kNegotiation, kAnyInterface)) {}

    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        m_negotiation->onDatagram({data, static_cast<std::size_t>(length)});
    }
    virtual ~HostNegotiatorPrivate() {
        m_receiver.reset(); // no objection starts another login from here on
        m_negotiation->end();
    }

    bool asyncLogin(std::uint8_t id) {
        if (!m_negotiation->begin(id, __func__))
            return false;
        try {
            m_negotiation->launchLogin();
        } catch (...) {
            m_negotiation->abandonBegin();
            throw;
        }
        return true;
    }
    std::uint8_t syncLogin(std::uint8_t id) {
        const std::shared_ptr<Negotiation> negotiation = m_negotiation; // outlasts the negotiator
        return negotiation->begin(id, __func__) ? negotiation->login() : 0;
    }

private:
    const std::shared_ptr<Negotiation> m_negotiation;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

HostNegotiator::HostNegotiator(std::function<void()> onReset, std::function<void(std::uint8_t)> onLogin)
    : d(new HostNegotiatorPrivate(std::move(onReset), std::move(onLogin))) {}
HostNegotiator::~HostNegotiator() {
    delete d;
}
bool HostNegotiator::asyncLogin(std::uint8_t id) {
    return d->asyncLogin(id);
}
std::uint8_t HostNegotiator::syncLogin(std::uint8_t id) {
    return d->syncLogin(id);
}
