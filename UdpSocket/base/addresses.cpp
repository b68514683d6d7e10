#include <UdpSocket/udpsocket.h>

#include <arpa/inet.h>
#include <netdb.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <locale>
#include <memory>
#include <sstream>

namespace net {

unsigned int transAddr(const char* ip) {
    return ::inet_addr(ip);
}

char* transAddr(unsigned int ip) {
    return ::inet_ntoa(in_addr{ip});
}

unsigned short HtoNs(unsigned short hostOrder) {
    return static_cast<unsigned short>(hostOrder << 8 | hostOrder >> 8);
}

unsigned short NtoHs(unsigned short networkOrder) {
    return HtoNs(networkOrder);
}

unsigned int HtoNl(unsigned int hostOrder) {
    return hostOrder << 24 | (hostOrder & 0xFF00) << 8 | (hostOrder >> 8 & 0xFF00) | hostOrder >> 24;
}

unsigned int NtoHl(unsigned int networkOrder) {
    return HtoNl(networkOrder);
}

std::string cidrToMask(int prefixLength) {
    const unsigned int shift = (32U - static_cast<unsigned int>(prefixLength)) % 32U;
    const unsigned int mask = prefixLength == 0 ? 0 : 0xFFFFFFFFU << shift;
    char text[INET_ADDRSTRLEN];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", mask >> 24, mask >> 16 & 0xFF, mask >> 8 & 0xFF,
                  mask & 0xFF);
    return text;
}

int maskToCidr(const std::string& mask) {
    std::istringstream text(mask);
    text.imbue(std::locale::classic()); // elsewhere a point may separate thousands
    std::uint32_t bits = 0;
    for (int position = 24; position >= 0; position -= 8) {
        int number = 0;
        if (!(text >> number))
            number = 0; // also what overflows
        bits |= static_cast<std::uint32_t>(number) << position;
        char separator;
        text >> separator;
    }
    return std::popcount(bits);
}

int GetIpByDomainName(const char* name, std::vector<std::string>& addresses) {
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* first = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &first) != 0)
        return 0;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(first, &::freeaddrinfo);
    int count = 0;
    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        sockaddr_in address;
        std::memcpy(&address, entry->ai_addr, sizeof address);
        char text[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
        addresses.emplace_back(text);
        ++count;
    }
    return count;
}

} // namespace net
