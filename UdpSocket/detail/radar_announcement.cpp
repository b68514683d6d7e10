// What MultiRadarClientPrivate makes of an announcement.

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/profile.h>
#include <UdpSocket/detail/radar_client.h>
#include <UdpSocket/detail/wire.h>

#include <cstring>

namespace {

constexpr std::string_view kFirstNameCharacters = "ZQ"; // of every radar that is reached over TCP
constexpr std::size_t kShortestStart = 3;               // bytes of a kTcpReply that may begin a message

std::uint32_t readAddress(std::string_view datagram, const wire::Field& field) {
    std::uint32_t address;
    std::memcpy(&address, datagram.data() + field.offset, sizeof address);
    return address;
}

/// A radar's name as the table lists it.
class Name {
public:
    explicit Name(std::string_view datagram) {
        const std::string_view field = datagram.substr(wire::kName.offset, wire::kName.width);
        m_length = field.substr(0, field.find('\0')).copy(m_text, wire::kName.width);
    }
    const char* plain() { return with(""); }
    const char* with(std::string_view suffix) {
        m_text[m_length + suffix.copy(m_text + m_length, kLongestSuffix)] = '\0';
        return m_text;
    }

private:
    static constexpr std::size_t kLongestSuffix = 5; // ":User"
    char m_text[wire::kName.width + kLongestSuffix + 1];
    std::size_t m_length;
};

/// The record of the first stream, every endpoint UDP; what the address plan adds is left zero.
RadarAddress readStandardRecord(std::string_view datagram, const wire::Layout& layout) {
    RadarAddress record{};
    record.head = readAddress(datagram, wire::kRadarIp);
    for (const wire::EndpointPlace& place : layout.endpoints)
        if (place.stream == 0) {
            const NetAddress endpoint = wire::endpointAt(datagram, place);
            record.*place.field = {endpoint.ip, endpoint.port, 0};
        }
    return record;
}

void fillFromPlan(RadarAddress& record) {
    const std::uint8_t number = plan::streamPort2MultiNum(net::NtoHs(record.arpaStream.port));
    const NetAddress original = plan::getOriginalImageEp(number, 0);
    record.imageOriginal = {original.ip, original.port, 0};
    plan::fillInfoDevices(record.infoDev, plan::getInfoDevBaseEp(number));
}

void replaceByUserEndpoints(RadarAddress& record, std::string_view datagram) {
    for (const wire::EndpointPlace& place : wire::kUserEndpoints) {
        const NetAddress endpoint = wire::endpointAt(datagram, place);
        if (endpoint.port != 0)
            record.*place.field = {endpoint.ip, endpoint.port, 0};
    }
}

void replaceByTcpEndpoints(RadarAddress& record, std::string_view datagram) {
    constexpr std::uint32_t kRadarsOwn = 0xFFFFFFFF;
    for (std::size_t i = 0; i < std::size(wire::kTcpEndpoints); ++i) {
        const wire::EndpointPlace& place = wire::kTcpEndpoints[i];
        const NetAddress endpoint = wire::endpointAt(datagram, place);
        if (endpoint.ip == 0 && endpoint.port == 0)
            continue;
        const std::uint8_t kind =
            wire::byteAt(datagram, wire::kTcpKinds, i); // as the radar sees it: ours is the other
        record.*
            place.field = {endpoint.ip, endpoint.port, static_cast<std::uint8_t>(kind == 0 ? 0 : 3 - kind)};
    }
    for (const plan::EndpointField control : {&RadarAddress::imageCtrl, &RadarAddress::arpaCtrl})
        if ((record.*control).ip == kRadarsOwn)
            (record.*control).ip = record.head;
}

} // namespace

void MultiRadarClientPrivate::OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data,
                                                     int len) {
    const std::string_view datagram(data, static_cast<std::size_t>(len));
    if (!wire::hasCode(datagram, wire::kAnnouncement))
        return;
    if (datagram.size() == wire::kLongAnnouncement.length)
        onLongAnnouncement(datagram);
    else if (datagram.size() == wire::kShortAnnouncement.length)
        onShortAnnouncement(datagram);
}

void MultiRadarClientPrivate::onShortAnnouncement(std::string_view datagram) {
    updateHostInfo(Name(datagram).plain(), readStandardRecord(datagram, wire::kShortAnnouncement));
}

void MultiRadarClientPrivate::onLongAnnouncement(std::string_view datagram) {
    Name name(datagram);
    const bool extended = wire::byteAt(datagram, wire::kExtended) == 1;
    const bool userValid = extended && wire::byteAt(datagram, wire::kUserValid) != 0;
    RadarAddress record = readStandardRecord(datagram, wire::kLongAnnouncement);
    fillFromPlan(record);
    if (userValid)
        replaceByUserEndpoints(record, datagram);
    updateHostInfo(userValid ? name.with(":User") : name.plain(), record);

    const bool wantsTcp = net::detail::profileFlag("Radar", "TCPService", "");
    if (!extended || !wantsTcp)
        return;
    const std::uint8_t offered = wire::byteAt(datagram, wire::kTcpOffered);
    if (offered == 1) {
        RadarAddress tcp = plan::dedicatedRecord(wire::byteAt(datagram, wire::kRadarNumber));
        tcp.head = record.head;
        replaceByTcpEndpoints(tcp, datagram);
        updateHostInfo(name.with(":TCP"), tcp);
        sendToRadars(wire::kTcpWanted);
    } else if (offered == 0) {
        sendToRadars(wire::kTcpUnwanted);
    }
}

void MultiRadarClientPrivate::OnTcpDataReceived(int, const char* addr, unsigned short port, const char* data,
                                                int len) {
    const std::string_view chunk(data, static_cast<std::size_t>(len));
    const bool startsAnnouncement =
        wire::hasCode(chunk, wire::kAnnouncement) &&
        chunk.substr(wire::kName.offset, kFirstNameCharacters.size()) == kFirstNameCharacters;
    const bool startsReply = wire::hasCode(chunk, wire::kTcpReply) && chunk.size() >= kShortestStart;
    if (startsAnnouncement || startsReply)
        m_tcpBuffer = chunk;
    else if (!m_tcpBuffer.empty())
        m_tcpBuffer += chunk;

    const bool announcement = wire::hasCode(m_tcpBuffer, wire::kAnnouncement);
    const std::size_t needed = announcement ? wire::kLongAnnouncement.length : wire::kTcpReplyLength;
    if (m_tcpBuffer.size() < needed)
        return;
    OnUdpGroupDataReceived(addr, port, nullptr, 0, m_tcpBuffer.data(), static_cast<int>(needed));
    m_tcpBuffer.clear();
}
