#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <cstdio>
#include <thread>

int main() {
    MultiRadarClient* client =
        MultiRadarClient::getInstance(); // searches for the radars' interface by itself
    for (;;) {
        client->query();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        for (const std::string& name : client->getRadar()) // bytes of any kind: for a terminal, escape them
            if (const RadarAddress* radar = client->getAddress(name.c_str(), 0))
                std::printf("%s: image on %s port %d\n", name.c_str(), net::transAddr(radar->imageStream.ip),
                            net::NtoHs(radar->imageStream.port));
    }
}
