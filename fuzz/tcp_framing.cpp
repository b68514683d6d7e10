// The TCP stream of a fixed radar. The first four bytes say how the rest is cut into the pieces that arrive.
#include "support.h"

#include <UdpSocket/detail/clock.h>
#include <UdpSocket/detail/radar_client.h>

#include <algorithm>

namespace {

constexpr std::size_t kCuts = 4;
std::int64_t s_now = 1000;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static MultiRadarClientPrivate& client = [&]() -> MultiRadarClientPrivate& {
        fuzz::setProfile("[Radar]\nIP = 10.0.0.1\nTCPService = true\n");
        net::detail::setClock([] { return s_now; });
        return *new MultiRadarClientPrivate;
    }();
    if (size < kCuts)
        return 0;
    const char* rest = reinterpret_cast<const char*>(data) + kCuts;
    std::size_t left = size - kCuts;
    for (std::size_t i = 0; left > 0; ++i) {
        const std::size_t piece = std::min<std::size_t>(left, data[i % kCuts] + 1U);
        client.OnTcpDataReceived(3, "10.0.0.1", 6878, rest, static_cast<int>(piece));
        rest += piece;
        left -= piece;
    }
    for (const std::string& name : client.getRadar()) {
        fuzz::require(name.size() <= 21 && name.find("TCP") != std::string::npos);
        client.getAddress(name.c_str(), 0);
    }
    s_now += 9; // the table is empty again for the next input
    client.query();
    return 0;
}
