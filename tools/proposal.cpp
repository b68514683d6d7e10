#include "proposal.h"

#include "output.h"
#include "table.h"

#include <UdpSocket/protocol/announcement.h>
#include <UdpSocket/protocol/negotiation.h>
#include <UdpSocket/protocol/wire.h>
#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <string>

namespace {

constexpr std::chrono::milliseconds kAnswerTime(500); // hosts answer in milliseconds

/// The host ids that other radars announce. Listens from construction to destruction.
class AnnouncedIds : public net::iUdpDataListener {
public:
    void ask() const {
        net::UdpSender(wire::kDiscovery.address, wire::kDiscovery.port, 0, 0)
            .sendData(wire::kQuery.data(), static_cast<int>(wire::kQuery.size()));
    }
    /// Whom each id was heard from.
    std::map<int, std::string> holders() const {
        const std::lock_guard lock(m_mutex);
        return m_holders;
    }

    void OnUdpGroupDataReceived(const char* fromIp, int, const char*, int, const char* data,
                                int length) override {
        const auto announcement = protocol::readAnnouncement({data, static_cast<std::size_t>(length)}, {});
        if (!announcement)
            return;
        const int id = plan::hostNumber(announcement->arpaPort).id;
        const std::lock_guard lock(m_mutex);
        m_holders[id] = printable(std::string(announcement->name.view())) + " (" + fromIp + ")";
    }

private:
    mutable std::mutex m_mutex; // guards m_holders
    std::map<int, std::string> m_holders;
    net::UdpReceiver m_receiver{this, 0, wire::kDiscovery.address, wire::kDiscovery.port, 8192}; // last
};

} // namespace

std::uint8_t proposedId(int wanted, Loop& loop) {
    const AnnouncedIds announced;
    announced.ask();
    for (const auto end = std::chrono::steady_clock::now() + kAnswerTime;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        if (loop.wait(left) == Loop::Event::Stop)
            return 0;
    }
    const std::map<int, std::string> holders = announced.holders();
    if (const auto holder = holders.find(wanted); wanted != 0 && holder != holders.end())
        tell("radarctl: host id " + std::to_string(wanted) + " is announced by " + holder->second +
             "; proposing it all the same\n");
    if (wanted != 0)
        return static_cast<std::uint8_t>(wanted);
    protocol::IdDraw draw{std::random_device{}()};
    constexpr int kDraws = 1000; // all ids may be taken
    std::uint8_t id = draw();
    for (int i = 0; i < kDraws && holders.contains(id); ++i)
        id = draw();
    return id;
}
