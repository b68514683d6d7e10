// Prints through which local address a text can be received on a multicast group.
#include <UdpSocket/udpsocket.h>

#include <cstdio>
#include <cstdlib>

namespace {

class Printer : public net::iUdpCheckerListener {
public:
    void OnUdpCheckerIpFound(unsigned int localIp) override {
        std::printf("heard through %s\n", net::transAddr(localIp));
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s GROUP PORT TEXT\n", argv[0]);
        return 2;
    }
    Printer printer; // outlives the checker
    net::UdpChecker checker(argv[1], static_cast<unsigned short>(std::strtoul(argv[2], nullptr, 10)),
                            argv[3]);
    checker.addListener(&printer);
    std::puts("Press Enter to end.");
    std::getchar();
    return EXIT_SUCCESS;
}
