#include <UdpSocket/base/escape.h>

#include <cstddef>

namespace net::detail {

namespace {

void appendEscaped(std::string& result, unsigned char byte) {
    constexpr char digits[] = "0123456789ABCDEF";
    result += {'\\', 'x', digits[byte >> 4], digits[byte & 0x0F]};
}

} // namespace

std::string escaped(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte < 0x20 || byte == 0x7F) {
            appendEscaped(result, byte);
        } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
            appendEscaped(result, byte);
            appendEscaped(result, next);
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

} // namespace net::detail
