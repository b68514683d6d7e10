#include <UdpSocket/detail/profile.h>

#include <arpa/inet.h>

#include <cstdio>

namespace net::detail {

unsigned int profileAddress(const char* section, const char* key, const std::string& text) {
    in_addr address{};
    if (!text.empty() && ::inet_pton(AF_INET, text.c_str(), &address) != 1)
        std::fprintf(stderr, "%s: [%s] %s = %s is no IPv4 address, taken as 0.0.0.0\n", kProfileFile, section,
                     key, text.c_str());
    return address.s_addr;
}

} // namespace net::detail
