#include <UdpSocket/detail/radar_client.h>

#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/profile.h>

#include <cstdio>
#include <ctime>
#include <exception>

namespace {

constexpr std::int64_t kSilence = 8; // seconds after which a radar that has not been heard leaves the table

// Names that the table holds at most. The plan has 49 host ids, and a radar three names at most; what comes
// beyond is forged. New names are refused rather than old ones removed, so that a radar which is listed
// stays, and since silent ones leave just before a query is sent, its answer finds room.
constexpr std::size_t kMostNames = 4096;

std::string clockText(std::int64_t moment) {
    const std::time_t seconds = net::detail::wallClockAt(moment);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%I:%M:%S", &local);
    return text;
}

} // namespace

MultiRadarClientPrivate::MultiRadarClientPrivate() {
    m_radarIp = net::detail::profileAddress("Radar", "IP", net::detail::profileText("Radar", "IP", "", 16));
    if (m_radarIp != 0)
        std::printf("RadarIP: %s\n", net::transAddr(m_radarIp));
    m_checker = std::make_unique<MultiRadarCheckerPrivate>(this, [this] { mend(); });
}

MultiRadarClientPrivate::~MultiRadarClientPrivate() {
    m_checker.reset();
    destroy(&MultiRadarClientPrivate::m_resetSender);
    destroy(&MultiRadarClientPrivate::m_querySender);
    destroy(&MultiRadarClientPrivate::m_announceReceiver);
    destroy(&MultiRadarClientPrivate::m_tcpClient);
}

template <class Transport>
void MultiRadarClientPrivate::destroy(Slot<Transport> slot) {
    std::unique_ptr<Transport> old;
    net::detail::Lock lock(m_transportMutex);
    old.swap(this->*slot);
}

template <class Transport, class Make>
void MultiRadarClientPrivate::replace(Slot<Transport> slot, Make make) {
    destroy(slot);
    auto made = make();
    net::detail::Lock lock(m_transportMutex);
    this->*slot = std::move(made);
}

void MultiRadarClientPrivate::OnLocalIpChanged(unsigned int localIp) {
    net::detail::Lock rebuild(m_rebuildMutex);
    std::printf("LocalIpChanged %08X: %s \n", localIp, net::transAddr(localIp));
    m_localIp = localIp;
    m_whole = openSockets();
}

void MultiRadarClientPrivate::mend() {
    net::detail::Lock rebuild(m_rebuildMutex);
    if (!m_whole)
        m_whole = openSockets();
}

bool MultiRadarClientPrivate::openSockets() try {
    const std::uint32_t localIp = m_localIp;
    replace(&MultiRadarClientPrivate::m_resetSender,
            [&] { return net::detail::makeSender(wire::kNegotiation, localIp); });
    replace(&MultiRadarClientPrivate::m_querySender,
            [&] { return net::detail::makeSender(wire::kDiscovery, localIp); });
    destroy(&MultiRadarClientPrivate::m_announceReceiver);
    destroy(&MultiRadarClientPrivate::m_tcpClient);
    if (m_radarIp == 0)
        replace(&MultiRadarClientPrivate::m_announceReceiver,
                [&] { return net::detail::makeReceiver(this, wire::kDiscovery, localIp); });
    else
        replace(&MultiRadarClientPrivate::m_tcpClient, [&] {
            const NetAddress radar{m_radarIp, net::HtoNs(wire::kDiscovery.port)};
            return std::make_unique<net::TcpClient>(this, radar, localIp);
        });
    net::detail::Lock lock(m_transportMutex);
    return m_tcpClient != nullptr || net::UdpReceiverPrivate::hasThread(*m_announceReceiver);
} catch (const std::exception& error) { // no thread, no memory
    std::fprintf(stderr, "MultiRadarClient: cannot listen for radars now (%s), will try again\n",
                 error.what());
    return false;
}

void MultiRadarClientPrivate::sendToRadars(const wire::Code& code) {
    net::detail::Lock lock(m_transportMutex);
    if (m_querySender)
        net::detail::send(*m_querySender, code);
    if (m_tcpClient && m_tcpClient->isConnected())
        m_tcpClient->asyncSendData(code.data(), static_cast<unsigned int>(code.size()));
}

void MultiRadarClientPrivate::resetRadar() {
    net::detail::Lock lock(m_transportMutex);
    if (m_resetSender)
        net::detail::send(*m_resetSender, wire::kReset);
}

void MultiRadarClientPrivate::query() {
    removeSilentRadars();
    sendToRadars(wire::kQuery);
}

void MultiRadarClientPrivate::removeSilentRadars() {
    net::detail::Lock lock(m_mutex);
    const std::int64_t now = net::detail::now();
    std::erase_if(m_radars, [now](const auto& radar) {
        const auto& [name, entry] = radar;
        if (now - entry.lastSeen < kSilence)
            return false;
        std::printf("Remove radar,name:%s,[%s,%s]\n", name.c_str(), clockText(entry.lastSeen).c_str(),
                    clockText(now).c_str());
        return true;
    });
}

void MultiRadarClientPrivate::updateHostInfo(const char* name, const RadarAddress& addr) {
    if (m_radarIp != 0 && std::string_view(name).find("TCP") == std::string_view::npos)
        return;
    {
        net::detail::Lock lock(m_mutex);
        auto found = m_radars.find(std::string_view(name));
        if (found == m_radars.end()) {
            if (m_radars.size() >= kMostNames)
                return;
            found = m_radars.try_emplace(name).first;
        }
        Entry& entry = found->second; // what it holds already is written over, without the heap
        entry.records.assign(reinterpret_cast<const char*>(&addr), sizeof addr);
        entry.lastSeen = net::detail::now();
    }
    for (iRadarObserver* observer : m_radarObservers)
        observer->OnRadarUpdated(name, &addr);
}
