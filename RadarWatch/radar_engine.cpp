#include <RadarWatch/radar_engine.h>

#include <UdpSocket/base/thread.h>
#include <UdpSocket/base/timing.h>
#include <UdpSocket/settings/settings.h>
#include <UdpSocket/udpsocket.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

namespace radar::detail {

using net::detail::Lock;
using net::detail::runStep;
using Origin = LocalAddress::Origin;

namespace {

using namespace std::chrono_literals;

constexpr auto kStandstill = 3s; // between two ticks: this program stood still, which is nobody's silence
constexpr int kBatch = 64;       // datagrams, before anything else is looked at
constexpr int kBuffer = 1024;    // bytes; the longest message has 222

/// The engines of one process, by network and configured address.
class Engines : public net::detail::ProcessBound {
public:
    using Key = std::pair<std::uint64_t, std::uint32_t>;

    std::shared_ptr<RadarEngine> find(const Key& key) {
        Lock lock(m_mutex);
        return m_engines[key].lock();
    }
    /// @return @p made, or one that was made meanwhile
    std::shared_ptr<RadarEngine> keep(const Key& key, std::shared_ptr<RadarEngine> made) {
        Lock lock(m_mutex);
        if (auto other = m_engines[key].lock())
            return other;
        m_engines[key] = made;
        return made;
    }

private:
    net::detail::Mutex m_mutex;
    std::map<Key, std::weak_ptr<RadarEngine>> m_engines GUARDED_BY(m_mutex);
};

/// The lowest address of an interface whose name contains @p part; 0: there is none.
std::uint32_t addressOfInterface(const std::string& part) {
    if (!part.empty())
        for (const auto& [address, interface] : net::localNetworkInterfaces())
            if (interface.name.find(part) != std::string::npos)
                return address;
    return 0;
}

/// Where to look for radars without a search, and who says so.
std::pair<std::uint32_t, Origin> configuredAddress(std::uint32_t given) {
    if (given != 0)
        return {given, Origin::Options};
    if (const std::uint32_t address = net::settings::localAddress().ip; address != 0)
        return {address, Origin::ProfileAddress};
    if (const std::uint32_t address = addressOfInterface(net::settings::netName()); address != 0)
        return {address, Origin::ProfileInterface};
    return {0, Origin::Search};
}

/// Says once that something is refused, until it has succeeded.
void report(bool& refused, bool success, const char* what, const char* call) {
    const int error = errno;
    if (!success && !refused)
        std::fprintf(stderr, "RadarWatch: %s (%s: %s), will try again\n", what, call, std::strerror(error));
    refused = !success;
}

TimePoint now() {
    return TimePoint::clock::now();
}

} // namespace

// ------------------------------------------------------------------------------------------------- its life

std::shared_ptr<Engine> Engine::forAddress(std::uint32_t configured) {
    return RadarEngine::forAddress(configured);
}

std::shared_ptr<RadarEngine> RadarEngine::forAddress(std::uint32_t configured) {
    Engines& engines = net::detail::ofThisProcess<Engines>();
    const Engines::Key key{net::detail::thisNetwork(), configured};
    if (auto running = engines.find(key))
        return running;
    return engines.keep(key, std::shared_ptr<RadarEngine>(new RadarEngine(configured), &RadarEngine::end));
}

RadarEngine::RadarEngine(std::uint32_t configured) : m_radarIp(net::settings::radarAddress()) {
    const auto [address, origin] = configuredAddress(configured);
    m_wanted = address;
    m_origin = origin;
    if (address == 0) {
        m_client = std::make_unique<MultiRadarClient>();
        m_client->addListener(this);
    }
    m_thread = net::detail::startThread("radar-engine", [this] {
        run();
        if (m_endsItself)
            delete this;
    });
}

RadarEngine::~RadarEngine() {
    m_tcp.reset(); // these two call this object until they have ended
    m_client.reset();
}

void RadarEngine::end(RadarEngine* engine) noexcept {
    if (!engine->inOwnProcess())
        return;
    engine->m_ending = true;
    engine->m_wakeup.set();
    if (engine->m_thread.get_id() == std::this_thread::get_id()) {
        engine->m_endsItself = true;
        engine->m_thread.detach();
        return;
    }
    engine->m_thread.join();
    delete engine;
}

void RadarEngine::run() {
    while (!m_ending) {
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(m_nextTick - now());
        pollfd ready[] = {{m_wakeup.descriptor(), POLLIN, 0}, {m_link.receiver(), POLLIN, 0}};
        ::poll(ready, std::size(ready), static_cast<int>(std::clamp(pause, 0ms, 1000ms).count()));
        if ((ready[0].revents & POLLIN) != 0)
            m_wakeup.clear();
        if (ready[1].revents != 0)
            hear();
        runStep("RadarWatch: a message", [this] { sendWaiting(); });
        if (const TimePoint moment = now(); m_lookSoon.exchange(false) || moment >= m_nextTick) {
            m_nextTick = moment + net::detail::timing().radarLook;
            runStep("RadarWatch: a look", [&] { tick(moment); });
            runStep("RadarWatch: a stream's look", [&] { callFollowers(moment); });
        } else {
            runStep("RadarWatch: a stream's news", [this] { callFollowers({}); });
        }
    }
}

void RadarEngine::tick(TimePoint moment) {
    const bool stoodStill = moment - std::exchange(m_lastTick, moment) > kStandstill;
    m_tcpService = net::settings::tcpService();
    lookAtLocalAddress(moment);
    if (!stoodStill)
        update("RadarWatch: a look at silent radars",
               [&](Sightings& sightings) { return sightings.look(moment); });
    {
        Lock lock(m_mutex);
        for (Inbox* inbox : m_inboxes)
            inbox->catchUp(m_sightings.state(), moment);
    }
    if (m_link.isOpen())
        sendToRadars(wire::text(wire::kQuery));
}

// ---------------------------------------------------------------------------------------- the local address

void RadarEngine::OnLocalIpChanged(unsigned int localIp) {
    m_wanted = localIp;
    m_lookSoon = true;
    m_wakeup.set();
}

void RadarEngine::lookAtLocalAddress(TimePoint moment) {
    std::optional<Interface> found;
    std::uint32_t wanted = m_wanted;
    if (wanted != 0 && !findInterface(wanted, found))
        return;
    if (!found && m_origin == Origin::ProfileInterface) {
        wanted = addressOfInterface(net::settings::netName());
        if (wanted != 0 && !findInterface(wanted, found))
            return;
        if (found)
            m_wanted = wanted;
    }
    if (m_links == nullptr)
        m_links = net::detail::LinkHistory::ofThisNetwork();
    const std::uint64_t removals = m_links != nullptr && found ? m_links->removals(found->index) : 0;
    if (found != m_interface || wanted != m_lookedFor || removals != m_removals) {
        m_link.close();
        m_tcp.reset();
        const LocalAddress local = found ? LocalAddress{wanted, m_origin, found->name} : LocalAddress{};
        const auto change = [&](Sightings& sightings) REQUIRES(m_mutex) {
            m_situation = {local.address,
                           found ? found->device() : "",
                           found ? found->index : 0,
                           m_situation.interfaceChange + 1,
                           {}};
            ++m_changes;
            return sightings.setLocal(local, moment);
        };
        if (!update("RadarWatch: a change of the local address", change))
            return; // the next look finds it again
        m_interface = found;
        m_lookedFor = wanted;
        m_removals = removals;
    }
    if (found && !m_link.isOpen())
        openLink();
}

void RadarEngine::openLink() {
    const char* refused = nullptr;
    try {
        refused = m_link.open(m_lookedFor, *m_interface, m_radarIp == 0);
        if (refused == nullptr && m_radarIp != 0 && m_tcp == nullptr) {
            m_framing = {};
            m_tcp = std::make_unique<net::TcpClient>(
                this, NetAddress{m_radarIp, net::HtoNs(wire::kDiscovery.port)}, m_lookedFor);
        }
    } catch (const std::system_error& error) { // no thread
        m_link.close();
        errno = error.code().value();
        refused = "TcpClient";
    } catch (const std::bad_alloc&) { // so that the next look begins again
        m_link.close();
        throw;
    }
    report(m_openRefused, refused == nullptr, "cannot hear radars now", refused);
}

// ------------------------------------------------------------------------------------------------- messages

void RadarEngine::hear() {
    char buffer[kBuffer];
    for (int i = 0; i < kBatch; ++i) {
        const net::detail::Received received = m_link.receive(buffer, sizeof buffer);
        if (received.isTimeOut())
            return;
        if (!received.isDatagram()) { // the socket was shut, or its interface is gone: the next tick opens
                                      // another
            m_link.close();
            return;
        }
        takeAnnouncement({buffer, static_cast<std::size_t>(received.count)}, received.source.sin_addr.s_addr);
    }
}

void RadarEngine::OnTcpDataReceived(int, const char*, unsigned short, const char* data, int len) {
    const std::string_view message = m_framing.add({data, static_cast<std::size_t>(len)});
    if (message.empty())
        return;
    takeAnnouncement(message, m_radarIp);
    m_wakeup.set(); // followers
}

void RadarEngine::takeAnnouncement(std::string_view datagram, std::uint32_t source) {
    const auto announcement = protocol::readAnnouncement(datagram, {m_radarIp != 0, m_tcpService});
    if (!announcement)
        return;
    update("RadarWatch: an announcement", [&](Sightings& sightings) REQUIRES(m_mutex) {
        if (announcement->answer && m_client == nullptr) // which answers by itself
            m_toRadars.emplace(wire::text(*announcement->answer));
        return sightings.heard(*announcement, source, now());
    });
}

template <class Change>
bool RadarEngine::update(const char* step, Change change) {
    const bool done = runStep(step, [&] {
        Lock lock(m_mutex);
        const std::vector<Event> events = change(m_sightings);
        if (events.empty())
            return;
        ++m_changes;
        for (Inbox* inbox : m_inboxes)
            inbox->put(events);
    });
    if (done)
        return true;
    Lock lock(m_mutex);
    ++m_changes;
    for (Inbox* inbox : m_inboxes)
        inbox->fallBehind();
    return false;
}

void RadarEngine::sendWaiting() {
    std::set<std::string> toRadars;
    std::set<std::string> toHosts;
    {
        Lock lock(m_mutex);
        toRadars.swap(m_toRadars);
        toHosts.swap(m_toHosts);
    }
    for (const std::string& message : toRadars)
        sendToRadars(message);
    for (const std::string& message : toHosts)
        send(wire::kNegotiation, message);
}

void RadarEngine::sendToRadars(std::string_view message) {
    if (m_tcp != nullptr && m_tcp->isConnected())
        m_tcp->asyncSendData(message.data(), static_cast<unsigned int>(message.size()));
    send(wire::kDiscovery, message);
}

void RadarEngine::send(const wire::Group& group, std::string_view message) {
    if (m_link.isOpen())
        report(m_sendRefused, m_link.send(group, message), "cannot ask radars now", "sendto");
}

// -------------------------------------------------------------------------------------------------- Watches

void RadarEngine::join(Inbox& inbox) {
    Lock lock(m_mutex);
    m_inboxes.push_back(&inbox);
    inbox.catchUp(m_sightings.state(), now());
}

void RadarEngine::leave(Inbox& inbox) {
    Lock lock(m_mutex);
    m_inboxes.remove(&inbox);
}

std::vector<Radar> RadarEngine::radars(const Inbox& inbox) const {
    Lock lock(m_mutex);
    return inbox.radars(m_sightings.state(), now());
}

std::optional<Radar> RadarEngine::find(const Inbox& inbox, std::string_view name) const {
    Lock lock(m_mutex);
    return inbox.find(name, m_sightings.state(), now());
}

LocalAddress RadarEngine::localAddress(const Inbox& inbox) const {
    Lock lock(m_mutex);
    return inbox.localAddress(m_sightings.state());
}

bool RadarEngine::renumber(std::string_view name) {
    {
        Lock lock(m_mutex);
        const State& state = m_sightings.state();
        const Sighting* const found = state.find(name);
        if (found == nullptr || found->radar.hostId == 0 || state.local.address == 0)
            return false;
        const auto id = static_cast<std::uint8_t>(found->radar.hostId);
        m_toHosts.emplace(wire::text(wire::Negotiation{wire::kObjection, id}));
        m_sightings.renumbered(found->radar.name, now());
    }
    m_wakeup.set();
    return true;
}

bool RadarEngine::reset() {
    {
        Lock lock(m_mutex);
        if (m_sightings.state().local.address == 0)
            return false;
        m_toHosts.emplace(wire::text(wire::kReset));
    }
    m_wakeup.set();
    return true;
}

// ------------------------------------------------------------------------------------------------ followers

void RadarEngine::follow(const std::string& name, std::shared_ptr<Follower> follower) {
    m_followers.add(name, std::move(follower));
    {
        Lock lock(m_mutex);
        ++m_changes;
    }
    m_wakeup.set();
}

void RadarEngine::unfollow(const Follower* follower) {
    m_followers.remove(follower, m_thread.get_id() != std::this_thread::get_id());
}

/// @param tick its moment; none: they are called only where something has changed
void RadarEngine::callFollowers(std::optional<TimePoint> tick) {
    {
        Lock lock(m_mutex);
        if (!tick && m_changes == m_toldFollowers)
            return;
        m_toldFollowers = m_changes;
    }
    m_followers.call([this](const std::string& name) { return situationOf(name); }, tick);
}

Situation RadarEngine::situationOf(const std::string& name) const {
    Lock lock(m_mutex);
    Situation situation = m_situation;
    if (const Sighting* const sighting = m_sightings.state().find(name)) {
        situation.radar = sighting->radar;
        situation.radar->age = std::chrono::duration_cast<std::chrono::milliseconds>(now() - sighting->heard);
    }
    return situation;
}

} // namespace radar::detail
