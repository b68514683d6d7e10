// How many of H hosts that answer at one moment are listed, by the display's receive buffer and by how long
// its receive thread was kept off the processor.

#include "bench.h"

#include <UdpSocket/transport/protocol_sockets.h>

#include <mutex>
#include <set>
#include <thread>

namespace {

using namespace std::chrono_literals;
using bench::Child;
using net::detail::Descriptor;

constexpr int kHosts[] = {10, 20, 49, 100, 500};
constexpr int kBuffers[] = {10 * 1024, 32 * 1024, 256 * 1024};
constexpr std::chrono::milliseconds kDelays[] = {0ms, 1ms, 10ms};

/// Lists the hosts whose answers it receives; the first datagram of a burst delays its thread.
class Display : public net::iUdpDataListener {
public:
    Display(int bufferBytes, std::chrono::milliseconds delay)
        : m_delay(delay), m_receiver(this, net::transAddr("10.20.2.1"), wire::kDiscovery.address,
                                     wire::kDiscovery.port, net::detail::kDatagramBuffer) {
        net::UdpReceiverPrivate::growReceiveBuffer(m_receiver, bufferBytes);
    }
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int) override {
        bool first = false;
        {
            const std::lock_guard lock(m_mutex);
            first = m_names.empty();
            m_names.insert(std::string(data + wire::kName.offset));
        }
        if (first)
            std::this_thread::sleep_for(m_delay);
    }
    std::size_t count() {
        const std::lock_guard lock(m_mutex);
        return m_names.size();
    }

private:
    const std::chrono::milliseconds m_delay;
    std::mutex m_mutex;
    std::set<std::string> m_names;
    net::UdpReceiver m_receiver; // last: its thread uses the others
};

/// All hosts' announcements in one system call.
void answer(const Descriptor& socket, int hosts) {
    sockaddr_in to = bench::socketAddress(wire::kDiscovery.address, wire::kDiscovery.port);
    const auto count = static_cast<std::size_t>(hosts);
    std::vector<std::string> datagrams(count, std::string(wire::kLongAnnouncement.length, '\0'));
    std::vector<iovec> pieces(count);
    std::vector<mmsghdr> messages(count);
    for (std::size_t i = 0; i < count; ++i) {
        datagrams[i].replace(0, 2, wire::text(wire::kAnnouncement));
        const std::string name = std::to_string(i);
        datagrams[i].replace(wire::kName.offset, name.size(), name);
        pieces[i] = {datagrams[i].data(), datagrams[i].size()};
        messages[i].msg_hdr = {&to, sizeof to, &pieces[i], 1, nullptr, 0, 0};
    }
    ::sendmmsg(socket.get(), messages.data(), static_cast<unsigned int>(count), 0);
}

double listedOf(lab::Lan& lan, int hosts, int buffer, std::chrono::milliseconds delay) {
    Child display(lan.node("display"), [&](const Child::Wait& wait) -> std::vector<double> {
        bench::pinToProcessor(0);
        Display listing(buffer, delay);
        wait();
        return {static_cast<double>(listing.count())};
    });
    const lab::Inside inside = lan.node("host1").enter();
    answer(net::detail::openSocket(SOCK_DGRAM), hosts);
    std::this_thread::sleep_for(delay + 30ms);
    return display.finish().at(0);
}

} // namespace

int main(int argc, char** argv) {
    bench::start(argc, argv);
    lab::Lan lan({lab::display(1), lab::radarHost(1)});
    bench::pinToProcessor(1);
    for (const int buffer : kBuffers)
        for (const auto delay : kDelays)
            for (const int hosts : kHosts) {
                std::vector<double> listed;
                for (int turn = 0; turn < bench::fewRepetitions(); ++turn)
                    listed.push_back(listedOf(lan, hosts, buffer, delay));
                bench::record("buffer/" + std::to_string(buffer / 1024) + "/" +
                                  std::to_string(delay.count()) + "/" + std::to_string(hosts),
                              "library", "listed", listed);
            }
}
