#include <UdpSocket/discovery/multi_radar_client.h>

#include <UdpSocket/base/clock.h>
#include <UdpSocket/base/escape.h>
#include <UdpSocket/base/line_limit.h>
#include <UdpSocket/discovery/record_text.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/settings/settings.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int kDefaultRecordStream = 101; // selects the default record for any name

constexpr int kRecords = 1; // that the table holds of a name

/// The record found last, one for the process: what getAddress returns points into it.
net::detail::StaticMutex s_lookupMutex;
RadarAddress s_data GUARDED_BY(s_lookupMutex);

net::detail::LineLimit s_removalLines;

bool isDefault(const char* name) {
    return std::string_view(name).starts_with("Default");
}

bool diagnosticsOn() {
    const char* value = std::getenv("RADAR_DIAGNOSTICS");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

const RadarAddress& announceDefaultRecord() {
    std::puts("defalut radar address");
    return plan::defaultRecord();
}

std::string clockText(std::int64_t moment) {
    const std::time_t seconds = net::detail::wallClockAt(moment);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%I:%M:%S", &local);
    return text;
}

std::uint32_t fixedRadar() {
    const std::uint32_t radarIp = net::settings::radarAddress();
    if (radarIp != 0)
        std::printf("RadarIP: %s\n", net::transAddr(radarIp));
    return radarIp;
}

} // namespace

MultiRadarClientPrivate::MultiRadarClientPrivate()
    : m_radarIp(fixedRadar()), m_sockets(this, this, m_radarIp),
      m_checker(std::make_unique<MultiRadarCheckerPrivate>(this, [this] { m_sockets.repair(); })) {}

MultiRadarClientPrivate::~MultiRadarClientPrivate() {
    m_checker->stop(); // its listeners may call this object until it has ended
    m_sockets.close();
}

void MultiRadarClientPrivate::OnLocalIpChanged(unsigned int localIp) {
    std::printf("LocalIpChanged %08X: %s \n", localIp, net::transAddr(localIp));
    m_sockets.open(localIp);
}

void MultiRadarClientPrivate::OnUdpGroupDataReceived(const char* fromIp, int, const char*, int,
                                                     const char* data, int len) {
    takeAnnouncement({data, static_cast<std::size_t>(len)}, net::transAddr(fromIp));
}

void MultiRadarClientPrivate::OnTcpDataReceived(int, const char* addr, unsigned short, const char* data,
                                                int len) {
    const std::string_view message = m_framing.add({data, static_cast<std::size_t>(len)});
    if (!message.empty())
        takeAnnouncement(message, net::transAddr(addr));
}

void MultiRadarClientPrivate::takeAnnouncement(std::string_view datagram, std::uint32_t source) {
    const bool tcpService = protocol::isLongAnnouncement(datagram) && net::settings::tcpService();
    const auto announcement = protocol::readAnnouncement(datagram, {m_radarIp != 0, tcpService, false});
    if (!announcement)
        return;
    if (announcement->number)
        printOddPort(announcement->arpaPort, *announcement->number);
    for (std::size_t i = 0; i < announcement->listingCount; ++i)
        updateHostInfo(announcement->listings[i].name, announcement->listings[i].record, source);
    if (announcement->answer)
        m_sockets.sendToRadars(*announcement->answer);
}

void MultiRadarClientPrivate::updateHostInfo(std::string_view name, const RadarAddress& addr,
                                             std::uint32_t source) {
    protocol::RadarTable::Update update;
    {
        net::detail::Lock lock(m_mutex);
        update = m_radars.update(name, addr, source, net::detail::now());
    }
    if (update.change == protocol::RadarTable::Change::Refused)
        return;
    for (iRadarObserver* observer : m_radarObservers)
        observer->OnRadarUpdated(std::string(name).c_str(), &addr);
}

void MultiRadarClientPrivate::query() {
    const std::int64_t now = net::detail::now();
    std::vector<protocol::RadarTable::Removal> removals;
    {
        net::detail::Lock lock(m_mutex);
        removals = m_radars.expire(now);
    }
    for (const auto& [name, lastSeen] : removals)
        s_removalLines.print(stdout, "Remove radar,name:%s,[%s,%s]\n", net::detail::escaped(name).c_str(),
                             clockText(lastSeen).c_str(), clockText(now).c_str());
    m_sockets.sendToRadars(wire::kQuery);
}

void MultiRadarClientPrivate::resetRadar() {
    m_sockets.sendToHosts(wire::text(wire::kReset));
}

int MultiRadarClientPrivate::getRadar(char (*names)[24], int max) const {
    net::detail::Lock lock(m_mutex);
    int count = 0;
    for (const auto& [name, entry] : m_radars.entries()) {
        if (count >= max)
            break;
        names[count][name.copy(names[count], sizeof names[count] - 1)] = '\0';
        ++count;
    }
    return count;
}

std::vector<std::string> MultiRadarClientPrivate::getRadar() const {
    net::detail::Lock lock(m_mutex);
    std::vector<std::string> names;
    names.reserve(m_radars.entries().size());
    for (const auto& [name, entry] : m_radars.entries())
        names.push_back(name);
    return names;
}

const RadarAddress* MultiRadarClientPrivate::getAddress(const char* name, int stream) const {
    if (isDefault(name) || stream == kDefaultRecordStream)
        return &announceDefaultRecord();
    const RadarAddress* record = nullptr;
    std::optional<RadarAddress> toPrint;
    {
        net::detail::Lock lock(m_mutex);
        const auto* const entry = m_radars.find(name);
        if (entry == nullptr)
            return nullptr;
        net::detail::Lock lookup(s_lookupMutex);
        s_data = entry->record;
        if (stream < 0 || stream > kRecords)
            return nullptr;
        record = &s_data + stream; // kRecords itself leads behind the last one, which is not to be read
        if (stream < kRecords && diagnosticsOn())
            toPrint = entry->record;
    }
    if (toPrint)
        printRadarAddrs(*toPrint);
    return record;
}

int MultiRadarClientPrivate::getRadarStreamCount(const char* name) const {
    net::detail::Lock lock(m_mutex);
    return m_radars.find(name) != nullptr ? kRecords : 0;
}

std::optional<RadarAddress> MultiRadarClientPrivate::find(const char* name) const {
    net::detail::Lock lock(m_mutex);
    const auto* const entry = m_radars.find(name);
    if (entry == nullptr)
        return std::nullopt;
    net::detail::Lock lookup(s_lookupMutex);
    s_data = entry->record;
    return entry->record;
}

void MultiRadarClientPrivate::queryForAdjust(const char* name) {
    const std::optional<RadarAddress> first = isDefault(name) ? announceDefaultRecord() : find(name);
    if (!first) {
        std::printf("%s: donot find radar[%s]\n", __func__, net::detail::escaped(name).c_str());
        return;
    }
    const std::uint16_t port = plan::hostOrderPort(first->arpaStream);
    const plan::HostNumber number = plan::hostNumber(port);
    printOddPort(port, number);
    std::printf("query for reset id=0x%x\n", number.id);
    m_sockets.sendToHosts(wire::text(wire::Negotiation{wire::kObjection, number.id}));
}

MultiRadarClient* MultiRadarClient::m_instance = nullptr;

MultiRadarClient::MultiRadarClient() : d(new MultiRadarClientPrivate) {}
MultiRadarClient::~MultiRadarClient() {
    if (!d->checker().isCalling()) // see destroy()
        net::detail::destroy(d);
}

MultiRadarClient* MultiRadarClient::getInstance() {
    static MultiRadarClient sInstance;
    MultiRadarClient* const given = std::atomic_ref(m_instance).load();
    return given != nullptr ? given : &sInstance;
}

void MultiRadarClient::setInstance(MultiRadarClient* instance) {
    std::atomic_ref(m_instance).store(instance);
}

void MultiRadarClient::addListener(iMultiRadarCheckerListener* listener) {
    d->checker().addListener(listener);
}
void MultiRadarClient::removeListener(iMultiRadarCheckerListener* listener) {
    d->checker().removeListener(listener);
}
void MultiRadarClient::setLocalIP(unsigned int ip) {
    d->checker().setLocalIP(ip);
}
void MultiRadarClient::query() {
    d->query();
}
void MultiRadarClient::resetRadar() {
    d->resetRadar();
}
int MultiRadarClient::getRadar(char (*names)[24], int max) const {
    return d->getRadar(names, max);
}
std::vector<std::string> MultiRadarClient::getRadar() const {
    return d->getRadar();
}
const RadarAddress* MultiRadarClient::getAddress(const char* name, int stream) const {
    return d->getAddress(name, stream);
}
int MultiRadarClient::getRadarStreamCount(const char* name) const {
    return d->getRadarStreamCount(name);
}
void MultiRadarClient::queryForAdjust(const char* name) {
    d->queryForAdjust(name);
}
