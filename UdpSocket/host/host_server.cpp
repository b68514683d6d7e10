#include <UdpSocket/hostserver.h>

#include <UdpSocket/base/process.h>
#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/transport/protocol_sockets.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr unsigned int kAnyInterface = 0;

/// Where an assertion stands, as readers of the lines know it.
struct AssertionSite {
    const char* function;
    int line;
    const char* assertion;
};
constexpr const char* kFile = "UdpSocket/hostserver.cpp";
constexpr AssertionSite kStreamCount{"requireStreamCount", 27, "(streamCount ==1) || (streamCount ==2)"};
constexpr AssertionSite kHostId{"requireHostId", 34, "false"};
constexpr AssertionSite kNameLength{"composeAnnouncement", 41, "name.size() <= record length"};

/// A failed assertion that no build type leaves out.
[[noreturn]] void failAssertion(const AssertionSite& site) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name, kFile,
                 site.line, site.function, site.assertion);
    std::fflush(stderr); // a program may have it in a file
    std::abort();
}

void requireHostId(std::uint8_t hostId, const char* message) {
    if (plan::isHostId(hostId))
        return;
    std::printf(message, hostId);
    failAssertion(kHostId);
}

void requireName(std::string_view name, unsigned int streams) {
    if (name.size() > protocol::maxComposedName(streams))
        failAssertion(kNameLength);
}

} // namespace

/// Answers queries. Life cycle: answers from construction on; the receiver ends first, its thread sends.
class HostServerPrivate : public net::iUdpDataListener, public net::detail::ProcessBound {
public:
    explicit HostServerPrivate(std::string answer)
        : m_answer(std::move(answer)), m_sender(net::detail::makeSender(wire::kDiscovery, kAnyInterface)),
          m_receiver(net::detail::makeReceiver(this, wire::kDiscovery, kAnyInterface)) {}

    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        if (std::string_view(data, static_cast<std::size_t>(length)) == wire::text(wire::kQuery))
            net::detail::send(*m_sender, m_answer);
    }
    virtual ~HostServerPrivate() { m_receiver.reset(); }

private:
    const std::string m_answer;
    const std::unique_ptr<net::UdpSender> m_sender;
    std::unique_ptr<net::UdpReceiver> m_receiver;
};

HostServer::HostServer(const char* name, std::uint8_t hostId, std::uint32_t streamCount) {
    if (streamCount != 1 && streamCount != 2)
        failAssertion(kStreamCount);
    requireHostId(hostId, "Error with Host id:%d\n");
    requireName(name, streamCount);
    d = new HostServerPrivate(protocol::composeAnnouncement(name, hostId, streamCount));
}

HostServer::HostServer(const char* name, std::uint8_t hostId, const RadarAddress& addr) {
    requireHostId(hostId, "Error with Info Host id:%d\n");
    requireName(name, 1);
    d = new HostServerPrivate(protocol::composeAnnouncement(name, hostId, addr));
}

HostServer::~HostServer() {
    net::detail::destroy(d);
}
