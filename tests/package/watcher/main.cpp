#include <RadarWatch/radarwatch.h>
#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <cstdio>

int main(int argc, char**) {
    if (argc > 1) // nowhere here: it opens sockets
        radar::Watch().next(std::chrono::seconds(1));
    std::puts(net::cidrToMask(20).c_str());
    return radar::version()[0] == '1' && radar::groups(16).size() == 2 ? 0 : 1;
}
