#include <UdpSocket/udpsocket.h>

#include <cstdio>

int main() {
    std::printf("%s\n", net::cidrToMask(20).c_str());
    return 0;
}
