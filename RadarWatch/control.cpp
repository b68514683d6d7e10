#include <RadarWatch/recorded_lan.h>
#include <RadarWatch/stream_follower.h>
#include <RadarWatch/stream_private.h>
#include <RadarWatch/tcp_feed.h>
#include <RadarWatch/watch_private.h>

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>
#include <vector>

namespace radar {

using net::detail::Lock;

namespace {

/// Those that are connected to a server, the newest last.
class Clients final : public net::iTcpDataListener {
public:
    std::vector<int> all() const {
        Lock lock(m_mutex);
        return m_descriptors;
    }

private:
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int) override {}
    void OnTcpClientConnected(int fd, const char*, unsigned short) override {
        Lock lock(m_mutex);
        m_descriptors.push_back(fd);
    }
    void OnTcpClientDisconnected(int fd, const char*, unsigned short) override {
        Lock lock(m_mutex);
        std::erase(m_descriptors, fd);
    }

    mutable net::detail::Mutex m_mutex;
    std::vector<int> m_descriptors GUARDED_BY(m_mutex);
};

/// Sends to one endpoint; that of a recorded radar takes everything. Any thread.
class Outlet {
public:
    /// @return null when the system refuses a port or a thread. @throws std::bad_alloc
    static std::shared_ptr<Outlet> open(const detail::Target& target, int& error) {
        auto outlet = std::make_shared<Outlet>();
        if (RecordedLan::isRecorded(target.localAddress))
            return outlet;
        try {
            if (target.endpoint.type == detail::kUdp)
                outlet->m_udp =
                    std::make_unique<net::UdpSender>(target.endpoint, target.localAddress, std::uint16_t{0});
            else if (target.endpoint.type == detail::kTcpClient)
                outlet->m_client =
                    std::make_unique<net::TcpClient>(nullptr, target.endpoint, target.localAddress);
            else if ((outlet->m_server = detail::serve(target, &outlet->m_clients)) == nullptr) {
                error = errno;
                return nullptr;
            }
        } catch (const std::system_error& refusal) {
            error = refusal.code().value();
            return nullptr;
        }
        return outlet;
    }

    bool send(const char* data, int size) {
        if (m_udp)
            return m_udp->sendData(data, size) == size;
        if (!m_client && !m_server)
            return true;
        const auto length = static_cast<unsigned int>(size);
        errno = ENOTCONN; // also of a connection that is lost before its turn comes
        if (m_client)
            return m_client->isConnected() && (size == 0 || m_client->sendData(data, length));
        bool sent = false; // to the newest: a radar that came back has left older ones behind
        for (const int client : m_clients.all()) {
            errno = ENOTCONN;
            sent = size == 0 || m_server->sendData(client, data, length);
        }
        return sent;
    }

private:
    std::unique_ptr<net::UdpSender> m_udp;
    std::unique_ptr<net::TcpClient> m_client;
    Clients m_clients;
    std::unique_ptr<net::TcpServer> m_server;
};

// The engine tells a new follower at once; so a send just after construction finds its way. It cannot without
// memory.
constexpr std::chrono::seconds kFirstWord(1);

int errorOf(StreamEvent::Why lacking) {
    return lacking == StreamEvent::Why::LocalAddress ? ENETDOWN : ENOENT;
}

} // namespace

class ControlPrivate final : public net::detail::ProcessBound, public detail::Follower {
public:
    ControlPrivate(std::string name, int channel, int number)
        : m_name(std::move(name)), m_channel(channel), m_number(number) {}

    void onSituation(const detail::Situation& situation) override {
        StreamEvent::Why lacking;
        auto target = detail::targetOf(situation, m_name, m_channel, m_number, lacking);
        if (m_isOpen && target && detail::isSame(*target, *m_target))
            return;
        m_isOpen = false;
        m_target = std::move(target);
        if (!m_target)
            use(nullptr, errorOf(lacking));
        else if (m_target->endpoint.type != detail::kUdp)
            use(nullptr, ENOTCONN); // the old one may have the port
        if (m_target)
            open();
    }
    void onTick(std::chrono::steady_clock::time_point) override {
        if (m_target && !m_isOpen)
            open();
    }

    /// Comes behind Engine::unfollow.
    void end() { use(nullptr, ENOENT); }

    bool send(const void* data, std::size_t size) {
        if (!inOwnProcess()) {
            errno = ENOENT;
            return false;
        }
        std::shared_ptr<Outlet> outlet;
        int error;
        {
            Lock lock(m_mutex);
            m_wasTold.wait_for(lock, kFirstWord, [this]() REQUIRES(m_mutex) { return m_told; });
            outlet = m_outlet;
            error = m_error;
        }
        if (outlet && size <= INT_MAX)
            return outlet->send(static_cast<const char*>(data), static_cast<int>(size));
        errno = outlet ? EMSGSIZE : error;
        return false;
    }

private:
    void open() {
        int error = 0;
        auto outlet = Outlet::open(*m_target, error);
        m_isOpen = outlet != nullptr;
        use(std::move(outlet), error);
    }
    /// @param error of sends where there is no outlet
    void use(std::shared_ptr<Outlet> outlet, int error) {
        Lock lock(m_mutex);
        std::swap(m_outlet, outlet); // the old one ends without the lock
        m_error = error;
        m_told = true;
        m_wasTold.notify_all();
    }

    const std::string m_name;
    const int m_channel;
    const int m_number;

    // The engine's thread.
    std::optional<detail::Target> m_target; // none: there is nothing to send to
    bool m_isOpen = false;                  // by an outlet for it

    net::detail::Mutex m_mutex;
    net::detail::Condition m_wasTold;
    bool m_told GUARDED_BY(m_mutex) = false;              // where to send, or that there is nothing
    std::shared_ptr<Outlet> m_outlet GUARDED_BY(m_mutex); // null: there is no target, or the system refuses
    int m_error GUARDED_BY(m_mutex) = ENOENT;             // of sends then
};

void StreamDoor::start(Control& control, std::shared_ptr<detail::Engine> engine, const std::string& name,
                       int channel, int number) {
    const std::shared_ptr<ControlPrivate> made(new ControlPrivate(name, channel, number),
                                               &net::detail::destroy<ControlPrivate>);
    engine->follow(name, made);
    control.m_engine = std::move(engine);
    control.d = made;
}

std::unique_ptr<Control> StreamDoor::control(std::shared_ptr<detail::Engine> engine, const std::string& name,
                                             int channel, int number) {
    std::unique_ptr<Control> control(new Control);
    start(*control, std::move(engine), name, channel, number);
    return control;
}

Control::Control(const Watch& watch, const std::string& name, int channel, int number) {
    StreamDoor::start(*this, watch.d->engine(), name, channel, number);
}

Control::~Control() {
    if (d && d->inOwnProcess()) {
        m_engine->unfollow(d.get());
        d->end();
    }
}

bool Control::send(const void* data, std::size_t size) {
    const auto kept = d; // the Control may be destroyed meanwhile
    return kept->send(data, size);
}

} // namespace radar
