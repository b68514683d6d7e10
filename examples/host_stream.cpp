// A radar host that sends an image, also when a display makes it take another host id: example_host_stream
// NAME ID
#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

namespace {

// Where the image of stream 0 goes: the plan of docs/protocol.md. RadarWatch's radar::groups(id) has all
// endpoints.
NetAddress imageOf(unsigned int id) {
    if (id == 1)
        return {net::transAddr("236.6.7.8"), net::HtoNs(6878)};
    const unsigned int group = net::NtoHl(net::transAddr("236.6.7.35")) + 16 * (id - 16);
    return {net::HtoNl(group), net::HtoNs(static_cast<unsigned short>(6003 + 32 * (id - 16)))};
}

} // namespace

int main(int argc, char** argv) {
    const unsigned long proposed = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0;
    if (proposed != 1 && (proposed < 16 || proposed > 63)) {
        std::fprintf(stderr, "usage: %s NAME ID, where ID is 1, or 16 to 63\n", argv[0]);
        return 2;
    }
    std::atomic<unsigned char> held{0};
    // Called with the id that this host has in the end, now and whenever it has had to take another one.
    HostNegotiator negotiator(nullptr, [&held](unsigned char id) { held = id; });
    negotiator.asyncLogin(static_cast<unsigned char>(proposed));

    std::unique_ptr<HostServer> server;
    std::unique_ptr<net::UdpSender> image;
    unsigned char id = 0;
    for (unsigned int line = 0;; ++line) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the antenna turns
        if (const unsigned char now = held; now != id) {
            id = now;
            server.reset(); // nobody answers with the old endpoints any more
            // Local address 0: what is sent leaves by the interface to which the routes lead, as
            // announcements do.
            image = std::make_unique<net::UdpSender>(imageOf(id), 0, static_cast<unsigned short>(0));
            server = std::make_unique<HostServer>(argv[1], id, 1U);
            std::printf("host id %d: image to %s port %d\n", id, image->addr(), image->port());
            std::fflush(stdout);
        }
        if (image) { // what a datagram holds is up to host and display; here a line of 512 equal samples
            const std::string samples(512, static_cast<char>(line % 256));
            image->sendData(samples.data(), static_cast<int>(samples.size()));
        }
    }
}
