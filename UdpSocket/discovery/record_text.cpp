#include <UdpSocket/discovery/record_text.h>

#include <UdpSocket/base/line_limit.h>
#include <UdpSocket/base/process.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <iterator>

namespace {

net::detail::StaticMutex s_mutex;

/// Never destroyed: threads may print while the program ends.
std::string& lastPrinted() REQUIRES(s_mutex) {
    static std::string& text = *new std::string;
    return text;
}

// Anybody can announce odd ports.
net::detail::LineLimit s_portLines;
net::detail::LineLimit s_rangeLines;

const char* kindText(std::uint8_t type) {
    constexpr const char* texts[] = {"UDP", "TCP Server", "TCP Client"};
    return type < std::size(texts) ? texts[type] : "null";
}

} // namespace

std::string netAddrToString(NetAddress address) {
    char text[INET_ADDRSTRLEN] = "";
    const in_addr ip{address.ip};
    ::inet_ntop(AF_INET, &ip, text, sizeof text);
    return std::string(text) + ":" + std::to_string(plan::hostOrderPort(address));
}

std::string recordText(const RadarAddress& record) {
    const bool multi = record.isMulti != 0;
    const unsigned int number = multi ? record.multiNum : 0;
    const unsigned int high = number >> 4;
    const unsigned int address = multi ? (((10 * high + 20) << 8) + 11 * (22 - high)) & 0xFFFF : 0;
    char head[64];
    std::snprintf(head, sizeof head, "MultiAddress(%s):%02X 0x%04X\r\n", multi ? "true" : "false", number,
                  address);

    std::string text = head;
    const auto line = [&](const char* label, const RadarEndpoint& endpoint) {
        text += label + netAddrToString(endpoint) + " " + kindText(endpoint.type) + "\r\n";
    };
    line("ImageStream: ", record.imageStream);
    line("ImageOriginal: ", record.imageOriginal);
    line("ImageCtrl:   ", record.imageCtrl);
    line("ImageState:  ", record.imageState);
    line("ArpaStream: ", record.arpaStream);
    line("ArpaCtrl:   ", record.arpaCtrl);
    line("ArpaState:  ", record.arpaState);
    return text;
}

void printRadarAddrs(const RadarAddress& record) {
    const std::string text = recordText(record);
    {
        net::detail::Lock lock(s_mutex);
        if (text == lastPrinted())
            return;
        lastPrinted() = text;
    }
    std::printf("\r\n%s\r\n", text.c_str());
}

void printOddPort(std::uint16_t port, const plan::HostNumber& number) {
    constexpr const char* kFunction = "streamPort2MultiNum"; // readers of the lines know it
    if (!number.portMatches)
        s_portLines.print(stdout, "%s: port not match[%d]\n", kFunction, port);
    if (number.id == 0)
        s_rangeLines.print(stdout, "%s:id out of range[0x%x]\n", kFunction, number.computed);
}
