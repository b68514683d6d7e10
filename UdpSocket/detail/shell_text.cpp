#include <UdpSocket/detail/shell_text.h>

#include <arpa/inet.h>

#include <algorithm>
#include <string_view>

namespace net::detail {

bool isDottedQuad(const std::string& text) {
    in_addr address;
    return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool isInterfaceName(const std::string& text) {
    constexpr std::string_view allowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-:@";
    return !text.empty() && text.find_first_not_of(allowed) == std::string::npos;
}

} // namespace net::detail
