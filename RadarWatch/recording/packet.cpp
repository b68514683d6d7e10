#include <RadarWatch/recording/packet.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

namespace radar::recording {

namespace {

constexpr std::chrono::seconds kDisorder(1);                  // of what was taken from several sockets
constexpr Time kLatest = std::chrono::seconds(9'100'000'000); // that has room, and some to spare

constexpr std::size_t kIpHeader = 20;
constexpr std::size_t kUdpHeader = 8;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kTimeToLive = 1; // what multicast is sent with by default
constexpr unsigned int kIpv4 = 0x0800;

// Places in the headers.
constexpr std::size_t kIpChecksum = 10;
constexpr std::size_t kSource = 12;
constexpr std::size_t kDestination = 16;
constexpr std::size_t kUdpChecksum = kIpHeader + 6;

unsigned int byteAt(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

unsigned int wordAt(std::string_view bytes, std::size_t at) {
    return byteAt(bytes, at) << 8 | byteAt(bytes, at + 1);
}

void put(char* at, std::size_t word) {
    at[0] = static_cast<char>(word >> 8);
    at[1] = static_cast<char>(word);
}

/// The sum of the 16-bit words, as the checksums of IP and UDP take it.
std::uint32_t sumOf(std::string_view bytes, std::uint32_t sum) {
    std::size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2)
        sum += wordAt(bytes, i);
    return i < bytes.size() ? sum + (byteAt(bytes, i) << 8) : sum;
}

unsigned int checksum(std::uint32_t sum) {
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return ~sum & 0xFFFF;
}

/// What a frame carries; nothing where that is no IPv4.
std::optional<std::string_view> ipPacket(Link link, std::string_view frame) {
    if (link == Link::Ip)
        return frame;
    struct Layout {
        std::size_t type; // where it stands
        std::size_t length;
    };
    constexpr Layout kLayouts[] = {{12, 14}, {14, 16}, {0, 20}};
    const auto& [typeAt, length] = kLayouts[static_cast<std::size_t>(link)];
    if (frame.size() < length)
        return std::nullopt;
    unsigned int type = wordAt(frame, typeAt);
    frame.remove_prefix(length);
    while ((type == 0x8100 || type == 0x88A8 || type == 0x9100) && frame.size() >= 4) { // VLAN tags
        type = wordAt(frame, 2);
        frame.remove_prefix(4);
    }
    return type == kIpv4 ? std::optional(frame) : std::nullopt;
}

NetAddress endpointAt(std::string_view packet, std::size_t address, std::size_t port) {
    NetAddress endpoint;
    std::memcpy(&endpoint.ip, packet.data() + address, sizeof endpoint.ip);
    std::memcpy(&endpoint.port, packet.data() + port, sizeof endpoint.port);
    return endpoint;
}

} // namespace

Time FileClock::at(Time stamp) {
    Time time = std::min(stamp, kLatest - m_lead) + m_lead;
    if (time < m_last - kDisorder) {
        m_lead += m_last - time;
        time = m_last;
    }
    m_last = std::max(m_last, time);
    return time;
}

void appendPacket(std::string& bytes, const Datagram& datagram) {
    const std::size_t udpLength = kUdpHeader + datagram.payload.size();
    char header[kIpHeader + kUdpHeader]{};
    header[0] = 0x45; // version 4, five words of header
    put(header + 2, kIpHeader + udpLength);
    put(header + 6, 0x4000); // not to be fragmented
    header[8] = static_cast<char>(kTimeToLive);
    header[9] = static_cast<char>(kUdp);
    std::memcpy(header + kSource, &datagram.source.ip, sizeof datagram.source.ip);
    std::memcpy(header + kDestination, &datagram.destination.ip, sizeof datagram.destination.ip);
    std::memcpy(header + kIpHeader, &datagram.source.port, sizeof datagram.source.port);
    std::memcpy(header + kIpHeader + 2, &datagram.destination.port, sizeof datagram.destination.port);
    put(header + kIpHeader + 4, udpLength);

    const std::string_view all(header, sizeof header);
    put(header + kIpChecksum, checksum(sumOf(all.substr(0, kIpHeader), 0)));
    std::uint32_t sum = sumOf(all.substr(kSource, kIpHeader - kSource), kUdp); // the pseudo header
    sum = sumOf(all.substr(kIpHeader), sum + static_cast<std::uint32_t>(udpLength));
    const unsigned int udpChecksum = checksum(sumOf(datagram.payload, sum));
    put(header + kUdpChecksum, udpChecksum == 0 ? 0xFFFF : udpChecksum); // 0 says that there is none
    bytes.append(all).append(datagram.payload);
}

Decoded decode(Link link, std::string_view frame) {
    const Decoded other{Decoded::Kind::Other};
    const auto found = ipPacket(link, frame);
    if (!found || found->empty() || byteAt(*found, 0) >> 4 != 4)
        return other;
    std::string_view packet = *found;
    if (packet.size() < kIpHeader)
        return {Decoded::Kind::Cut};
    const std::size_t header = (byteAt(packet, 0) & 0xF) * 4;
    const std::size_t length = wordAt(packet, 2);
    if (byteAt(packet, 9) != kUdp || header < kIpHeader || length < header)
        return other;
    if ((wordAt(packet, 6) & 0x3FFF) != 0) // more follow, or came before
        return {Decoded::Kind::Fragment};
    if (packet.size() < length)
        return {Decoded::Kind::Cut};
    packet = packet.substr(0, length); // Ethernet pads
    const std::string_view udp = packet.substr(header);
    if (udp.size() < kUdpHeader || wordAt(udp, 4) < kUdpHeader || wordAt(udp, 4) > udp.size())
        return other;
    return {Decoded::Kind::Datagram, endpointAt(packet, kSource, header),
            endpointAt(packet, kDestination, header + 2),
            udp.substr(kUdpHeader, wordAt(udp, 4) - kUdpHeader)};
}

} // namespace radar::recording
