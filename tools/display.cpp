#include "display.h"

#include <algorithm>
#include <string_view>

namespace {

using namespace std::chrono_literals;

// An announcement, as far as it matters here.
constexpr std::string_view kCode = "\x01\xB2";
constexpr std::size_t kNameOffset = 2;
constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kLengths[] = {150, 222}; // of a host with one stream, and with two

constexpr auto kForgotten = 60s; // names that have not been heard for so long are dropped

int hostIdOf(const RadarAddress& record) {
    constexpr int kHostOne = 6688; // ARPA stream ports
    constexpr int kHostSixteen = 6009;
    constexpr int kStep = 32;
    const int port = net::NtoHs(record.arpaStream.port);
    const int index = (port - kHostSixteen) / kStep;
    if (port == kHostOne)
        return 1;
    const bool planned = port >= kHostSixteen && (port - kHostSixteen) % kStep == 0 && index <= 63 - 16;
    return planned ? index + 16 : 0;
}

/// The announcement of two streams is the one that the client completes from the address plan.
int streamsOf(const RadarAddress& record) {
    return record.isMulti == 0 && record.imageOriginal.port != 0 ? 2 : 1;
}

/// The name that a radar announced, behind the name under which the client lists it.
std::string announcedName(const std::string& listed) {
    for (const std::string_view suffix : {":User", ":TCP"})
        if (listed.ends_with(suffix))
            return listed.substr(0, listed.size() - suffix.size());
    return listed;
}

} // namespace

Display::Display() {
    MultiRadarClient::getInstance()->addListener(this);
}

Display::~Display() {
    MultiRadarClient::getInstance()->removeListener(this);
    m_receiver.reset();
}

void Display::OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) {
    const std::string_view datagram(data, static_cast<std::size_t>(length));
    if (std::ranges::count(kLengths, datagram.size()) == 0 || !datagram.starts_with(kCode))
        return;
    const std::string_view field = datagram.substr(kNameOffset, kNameWidth);
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(m_mutex);
    m_heard[std::string(field.substr(0, field.find('\0')))] = now;
    std::erase_if(m_heard, [now](const auto& heard) { return now - heard.second > kForgotten; });
}

void Display::query() {
    const unsigned int localIp = m_localIp;
    if (localIp == 0)
        return;
    if (localIp != m_receiverIp) {
        m_receiver.reset();
        m_receiver = std::make_unique<net::UdpReceiver>(this, localIp, "236.6.7.5", 6878, 8192);
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
        const RadarAddress record = *found;
        Radar radar{name, hostIdOf(record), streamsOf(record), record, std::nullopt};
        std::lock_guard lock(m_mutex);
        if (const auto heard = m_heard.find(announcedName(name)); heard != m_heard.end())
            radar.age = std::chrono::duration_cast<std::chrono::milliseconds>(now - heard->second);
        radars.push_back(std::move(radar));
    }
    return radars;
}
