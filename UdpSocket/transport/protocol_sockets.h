/// @file
/// The library's own senders and receivers on the groups of the radar protocols.
#pragma once

#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/transport/udp_receiver.h>
#include <UdpSocket/transport/udp_sender.h>
#include <UdpSocket/udpsocket.h>

#include <memory>
#include <string_view>

namespace net::detail {

inline constexpr int kDatagramBuffer = 1024; // bytes; the longest message has 222

// A full plan of 49 hosts answers one query at once; room for ten datagrams of kDatagramBuffer holds a third
// of that.
inline constexpr int kReceiveBuffer = 256 * 1024;

/// @param localIp network order; 0 lets the system choose
inline std::unique_ptr<UdpSender> makeSender(const wire::Group& group, unsigned int localIp) {
    return std::make_unique<UdpSender>(group.address, group.port, localIp, 0);
}

/// @param localIp network order; 0 lets the system choose
inline std::unique_ptr<UdpReceiver> makeReceiver(iUdpDataListener* listener, const wire::Group& group,
                                                 unsigned int localIp) {
    auto receiver =
        std::make_unique<UdpReceiver>(listener, localIp, group.address, group.port, kDatagramBuffer);
    UdpReceiverPrivate::growReceiveBuffer(*receiver, kReceiveBuffer);
    UdpReceiverPrivate::followRoute(*receiver);
    return receiver;
}

/// Never waits: a transmit queue that stands costs the datagram, not the caller.
inline void send(const UdpSender& sender, std::string_view message) {
    UdpSenderPrivate::sendNow(sender, message.data(), static_cast<int>(message.size()));
}

} // namespace net::detail
