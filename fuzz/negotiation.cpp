// One datagram on the negotiation group, as hosts take it that have not logged in, that hold id 1, and that
// hold another. An objection starts a login of two seconds, so the state that an input meets depends on time.
#include "support.h"

#include <UdpSocket/hostnegotiator.cpp> // its classes are its own

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::atomic<unsigned int> resets = 0;
    static HostNegotiatorPrivate* const hosts = [] {
        const auto host = [] { return HostNegotiatorPrivate([] { ++resets; }, nullptr); };
        auto* const made = new HostNegotiatorPrivate[3]{host(), host(), host()};
        made[1].asyncLogin(1);
        made[2].syncLogin(20);
        return made;
    }();
    const char* const bytes = reinterpret_cast<const char*>(data);
    const unsigned int before = resets;
    for (int i = 0; i < 3; ++i)
        hosts[i].OnUdpGroupDataReceived("10.0.0.1", 6768, "236.6.7.4", 6768, bytes, static_cast<int>(size));
    fuzz::require(resets - before == (std::string_view(bytes, size) == wire::text(wire::kReset) ? 3U : 0U));
    return 0;
}
