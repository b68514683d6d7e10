#include "display.h"

#include "plan.h"
#include "privileges.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

using namespace std::chrono_literals;

// An announcement, as far as it matters here.
constexpr std::string_view kCode = "\x01\xB2";
constexpr std::size_t kNameOffset = 2;
constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kOneStream = 150; // lengths
constexpr std::size_t kTwoStreams = 222;

struct Place {
    RadarEndpoint RadarAddress::*endpoint;
    std::size_t offset;
};
constexpr Place kSecondStream[] = {
    {&RadarAddress::imageStream, 124}, {&RadarAddress::imageCtrl, 134}, {&RadarAddress::imageState, 144},
    {&RadarAddress::arpaStream, 196},  {&RadarAddress::arpaCtrl, 206},  {&RadarAddress::arpaState, 216},
};

constexpr auto kForgotten = 10s;         // the client's table forgets after 8
constexpr std::size_t kMostNames = 8192; // of which no more than half are in the client's table

RadarAddress readSecondStream(std::string_view announcement) {
    RadarAddress record{};
    for (const Place& place : kSecondStream) {
        NetAddress endpoint;
        std::memcpy(&endpoint, announcement.data() + place.offset, sizeof endpoint);
        record.*place.endpoint = {endpoint.ip, endpoint.port, 0};
    }
    return record;
}

/// The name that a radar announced, behind the name under which the client lists it.
std::string announcedName(const std::string& listed) {
    for (const std::string_view suffix : {":User", ":TCP"})
        if (listed.ends_with(suffix))
            return listed.substr(0, listed.size() - suffix.size());
    return listed;
}

} // namespace

Display::Display(unsigned int localIp) : m_wantedIp(localIp) {
    MultiRadarClient* client = MultiRadarClient::getInstance();
    if (m_wantedIp != 0)
        client->setLocalIP(m_wantedIp);
    client->addListener(this);
}

Display::~Display() {
    MultiRadarClient::getInstance()->removeListener(this);
    m_receiver.reset();
}

void Display::OnLocalIpChanged(unsigned int localIp) {
    if (m_wantedIp == 0 || localIp == m_wantedIp) // the configured one may have come first
        m_localIp = localIp;
}

void Display::OnUdpGroupDataReceived(const char* fromIp, int, const char*, int, const char* data,
                                     int length) {
    const std::string_view datagram(data, static_cast<std::size_t>(length));
    if ((datagram.size() != kOneStream && datagram.size() != kTwoStreams) || !datagram.starts_with(kCode))
        return;
    const std::string_view field = datagram.substr(kNameOffset, kNameWidth);
    const auto now = std::chrono::steady_clock::now();
    Announcement heard{now, fromIp, std::nullopt};
    if (datagram.size() == kTwoStreams)
        heard.secondStream = readSecondStream(datagram);
    const std::string name(field.substr(0, field.find('\0')));
    std::lock_guard lock(m_mutex);
    if (m_heard.size() < kMostNames || m_heard.contains(name))
        m_heard[name] = heard;
}

void Display::query() {
    const unsigned int localIp = m_localIp;
    if (localIp == 0)
        return;
    {
        std::lock_guard lock(m_mutex);
        const auto now = std::chrono::steady_clock::now();
        std::erase_if(m_heard, [now](const auto& entry) { return now - entry.second.time > kForgotten; });
    }
    if (localIp != m_receiverIp) {
        m_receiver.reset();
        m_receiver = std::make_unique<net::UdpReceiver>(this, localIp, "236.6.7.5", 6878, 8192);
        m_receiverIp = localIp;
        const std::string interface = net::localIfaName(localIp);
        if (!interface.empty() && !hasDiscoveryRoute(interface))
            std::fprintf(
                stderr,
                "radarctl: no host routes to the radars' groups were added (that needs root, or sudo "
                "without a password); it does not matter: all sockets are tied to %s\n",
                interface.c_str());
    }
    MultiRadarClient::getInstance()->query();
}

std::vector<Radar> Display::radars() const {
    const MultiRadarClient& client = *MultiRadarClient::getInstance();
    const auto now = std::chrono::steady_clock::now();
    std::vector<Radar> radars;
    for (const std::string& name : client.getRadar()) {
        const RadarAddress* found = client.getAddress(name.c_str(), 0);
        if (found == nullptr)
            continue; // gone meanwhile
        Radar radar;
        radar.name = name;
        radar.streams = {*found};
        const RadarAddress& record = radar.streams.front();
        radar.hostId = hostIdOf(record);
        std::lock_guard lock(m_mutex);
        if (const auto heard = m_heard.find(announcedName(name)); heard != m_heard.end()) {
            const Announcement& announcement = heard->second;
            radar.age = std::chrono::duration_cast<std::chrono::milliseconds>(now - announcement.time);
            radar.source = announcement.source;
            if (announcement.secondStream && record.isMulti == 0) {
                RadarAddress second = *announcement.secondStream;
                second.head = record.head;
                second.infoDev = record.infoDev; // a host's streams share its devices
                if (radar.hostId != 0) {
                    const NetAddress original = streamGroups(radar.hostId, 1).original;
                    second.imageOriginal = {original.ip, original.port, 0};
                }
                radar.streams.push_back(second);
            }
        }
        radars.push_back(std::move(radar));
    }
    return radars;
}
