#include <UdpSocket/hostserver.h>

#include <UdpSocket/detail/address_plan.h>
#include <UdpSocket/detail/discovery_sockets.h>
#include <UdpSocket/detail/wire.h>
#include <UdpSocket/udpsocket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

/// A failed assertion that no build type leaves out.
[[noreturn]] void failAssertion(const char* assertion, int line, const char* function) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name, __FILE__,
                 line, function, assertion);
    std::abort();
}

void requireStreamCount(std::uint32_t streamCount) {
    if (streamCount != 1 && streamCount != 2)
        failAssertion("(streamCount ==1) || (streamCount ==2)", __LINE__, __func__);
}

void requireHostId(std::uint8_t hostId, const char* message) {
    if (plan::isHostId(hostId))
        return;
    std::printf(message, hostId);
    failAssertion("false", __LINE__, __func__);
}

std::string composeAnnouncement(std::string_view name, const wire::Layout& layout, std::uint8_t hostId,
                                const RadarAddress* images) {
    std::string datagram(layout.length, '\0');
    if (name.size() > layout.length - wire::kName.offset)
        failAssertion("name.size() <= record length", __LINE__, __func__);
    datagram.replace(wire::kCode.offset, wire::kCode.width, wire::text(wire::kAnnouncement));
    datagram.replace(wire::kName.offset, name.size(), name);
    datagram.replace(wire::kRadarIp.offset, wire::kRadarIp.width, wire::kRadarIp.width,
                     '\0'); // ends a longer name
    for (const wire::EndpointPlace& place : layout.endpoints) {
        const bool given = images != nullptr && (place.field == &RadarAddress::imageStream ||
                                                 place.field == &RadarAddress::imageCtrl ||
                                                 place.field == &RadarAddress::imageState);
        const NetAddress endpoint =
            given ? images->*place.field : plan::announcedEndpoint(hostId, place.field, place.stream);
        std::string bytes(reinterpret_cast<const char*>(&endpoint), sizeof endpoint);
        bytes.append(std::min(wire::kEndpointGap, layout.length - place.offset - bytes.size()), '\0');
        datagram.replace(place.offset, bytes.size(), bytes);
    }
    return datagram;
}

} // namespace

class HostServerPrivate : public net::iUdpDataListener {
public:
    explicit HostServerPrivate(std::string answer)
        : m_answer(std::move(answer)), m_sender(net::detail::makeSender(wire::kDiscovery, kAnyInterface)),
          m_receiver(net::detail::makeReceiver(this, wire::kDiscovery, kAnyInterface)) {}

    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        if (std::string_view(data, static_cast<std::size_t>(length)) == wire::text(wire::kQuery))
            m_sender->sendData(m_answer.data(), static_cast<int>(m_answer.size()));
    }
    virtual ~HostServerPrivate() { m_receiver.reset(); } // its thread uses the sender

private:
    static constexpr unsigned int kAnyInterface = 0;

    const std::string m_answer;
    const std::unique_ptr<net::UdpSender> m_sender;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

HostServer::HostServer(const char* name, std::uint8_t hostId, std::uint32_t streamCount) {
    requireStreamCount(streamCount);
    requireHostId(hostId, "Error with Host id:%d\n");
    const wire::Layout& layout = streamCount == 1 ? wire::kShortAnnouncement : wire::kLongAnnouncement;
    d = new HostServerPrivate(composeAnnouncement(name, layout, hostId, nullptr));
}

HostServer::HostServer(const char* name, std::uint8_t hostId, const RadarAddress& addr) {
    requireHostId(hostId, "Error with Info Host id:%d\n");
    d = new HostServerPrivate(composeAnnouncement(name, wire::kShortAnnouncement, hostId, &addr));
}

HostServer::~HostServer() {
    delete d;
}
