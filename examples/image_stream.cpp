// Follows one radar's image, also when the radar changes its id: example_image_stream NAME
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

// The local address that leads to the radars: receivers join their groups through it. With address 0, which
// stands here until one is found, a receiver joins on the one interface to which the routes lead: on another,
// it hears nothing.
class LocalAddress : public iMultiRadarCheckerListener {
public:
    void OnLocalIpChanged(unsigned int localIp) override { m_ip = localIp; }
    unsigned int ip() const { return m_ip; }

private:
    std::atomic<unsigned int> m_ip{0};
};

// Where a display would decode and draw. One call a datagram, on the receiver's thread.
class Picture : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char*, int length) override {
        ++m_datagrams;
        m_bytes += length;
    }
    void print() {
        std::printf("%d datagrams, %d bytes\n", m_datagrams.exchange(0), m_bytes.exchange(0));
        std::fflush(stdout);
    }

private:
    std::atomic<int> m_datagrams{0};
    std::atomic<int> m_bytes{0};
};

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s NAME\n", argv[0]);
        return 2;
    }
    LocalAddress local;
    MultiRadarClient client;
    client.addListener(&local);

    Picture picture;
    std::unique_ptr<net::UdpReceiver> receiver;
    NetAddress image{};
    unsigned int localIp = 0;
    for (;;) {
        client.query();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        if (receiver)
            picture.print();

        const RadarAddress* radar = client.getAddress(argv[1], 0);
        if (radar == nullptr)
            continue; // not heard yet, or no more: an open receiver may stay

        const NetAddress announced = radar->imageStream;
        if (receiver && announced.ip == image.ip && announced.port == image.port && local.ip() == localIp)
            continue;

        image = announced;
        localIp = local.ip();
        receiver.reset(); // the old one leaves its group before the new one joins
        receiver = std::make_unique<net::UdpReceiver>(&picture, localIp, image, 65536);
        std::printf("image from %s port %d\n", receiver->addr(), receiver->port());
        std::fflush(stdout);
    }
}
