#include "display.h"

#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/radar_table.h>

#include <string_view>

namespace {

using namespace std::chrono_literals;
using protocol::RadarTable;

constexpr auto kForgotten = std::chrono::seconds(RadarTable::kSilence) + 2s; // longer than the client's table
constexpr std::size_t kMaxNames = 2 * RadarTable::kMaxNames;

} // namespace

std::map<int, std::set<std::string>> sharedIds(const std::vector<Radar>& radars) {
    std::map<int, std::set<std::string>> holders;
    for (const Radar& radar : radars)
        if (radar.hostId != 0)
            holders[radar.hostId].emplace(protocol::announcedName(radar.name));
    std::erase_if(holders, [](const auto& entry) { return entry.second.size() < 2; });
    return holders;
}

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
    const auto announcement = protocol::readAnnouncement(datagram, {});
    if (!announcement)
        return;
    const LastHeard heard{std::chrono::steady_clock::now(), fromIp, announcement->secondStream};
    std::lock_guard lock(m_mutex);
    if (const auto known = m_heard.find(announcement->name.view()); known != m_heard.end())
        known->second = heard;
    else if (m_heard.size() < kMaxNames)
        m_heard.emplace(announcement->name.view(), heard);
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
        m_receiver = std::make_unique<net::UdpReceiver>(this, localIp, wire::kDiscovery.address,
                                                        wire::kDiscovery.port, 8192);
        m_receiverIp = localIp;
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
        radar.hostId = plan::hostIdOf(record);
        std::lock_guard lock(m_mutex);
        if (const auto heard = m_heard.find(protocol::announcedName(name)); heard != m_heard.end()) {
            const auto& [time, source, secondStream] = heard->second;
            radar.age = std::chrono::duration_cast<std::chrono::milliseconds>(now - time);
            radar.source = source;
            if (secondStream && record.isMulti == 0) {
                RadarAddress& second = radar.streams.emplace_back(*secondStream);
                if (radar.hostId == 0) // it is not announced, and no plan has it
                    second.imageOriginal = {};
            }
        }
        radars.push_back(std::move(radar));
    }
    return radars;
}
