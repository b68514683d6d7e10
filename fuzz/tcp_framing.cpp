// The TCP stream of a fixed radar. The first four bytes are the lengths of the pieces in which the rest
// arrives.
#include "support.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/tcp_framing.h>

#include <algorithm>
#include <string>

namespace {

constexpr std::size_t kCuts = 4;

void take(std::string_view message) {
    if (wire::hasCode(message, wire::kTcpReply)) {
        fuzz::require(message.size() == wire::kTcpReplyLength);
        return;
    }
    const auto announcement = protocol::readAnnouncement(message, {true, true});
    fuzz::require(announcement && announcement->name.view().starts_with("ZQ"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kCuts)
        return 0;
    protocol::TcpFraming framing;
    std::string_view rest = fuzz::text(data, size).substr(kCuts);
    for (std::size_t i = 0; !rest.empty(); ++i) {
        const std::size_t piece = std::min<std::size_t>(rest.size(), data[i % kCuts] + 1U);
        const std::string_view message = framing.add(rest.substr(0, piece));
        if (!message.empty())
            take(message);
        rest.remove_prefix(piece);
    }
    const std::string next = "\x01\xB2ZQ" + std::string(wire::kLongAnnouncement.length - 4, '\0');
    fuzz::require(framing.add(next + "rest") == next); // whatever came before
    return 0;
}
