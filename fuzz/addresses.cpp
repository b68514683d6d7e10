// The address utilities, and the texts that are allowed in shell commands.
#include "support.h"

#include <UdpSocket/base/command.h>
#include <UdpSocket/protocol/address_plan.h>
#include <UdpSocket/udpsocket.h>

#include <algorithm>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    constexpr const char* kAllowed = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ._-:@";
    const bool quad = net::detail::isDottedQuad(text);
    if (quad || net::detail::isInterfaceName(text))
        fuzz::require(text.find_first_not_of(kAllowed) == std::string::npos);
    if (quad)
        fuzz::require(net::transAddr(net::transAddr(text.c_str())) == text);
    const int ones = net::maskToCidr(text);
    fuzz::require(ones >= 0 && ones <= 32);

    std::uint32_t number = 0;
    std::memcpy(&number, data, std::min(size, sizeof number));
    const auto length = static_cast<int>(number);
    const std::string mask = net::cidrToMask(length);
    fuzz::require(length < 0 || length > 32 || net::maskToCidr(mask) == length);
    fuzz::require(net::transAddr(mask.c_str()) ==
                  net::transAddr(net::cidrToMask(net::maskToCidr(mask)).c_str()));
    fuzz::require(net::transAddr(net::transAddr(number)) == number &&
                  net::NtoHl(net::HtoNl(number)) == number);
    const plan::HostNumber host = plan::hostNumber(static_cast<std::uint16_t>(number));
    fuzz::require(host.id == 0 || plan::isHostId(host.id));
    return 0;
}
