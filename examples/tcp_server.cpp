// Serves TCP clients: prints how much each of them sends, and sends it on to all.
//
//     example_tcp_server 4000

#include <UdpSocket/tcpsocket.h>

#include <cstdio>
#include <cstdlib>

namespace {

class Relay : public net::iTcpDataListener {
public:
    virtual ~Relay() = default;
    net::TcpServer server{this};

    // Called on one thread a client: whatever the clients share needs a lock. The server has its own.
    void OnTcpDataReceived(int fd, const char* addr, unsigned short port, const char* data,
                           int len) override {
        std::printf("[%d] %s:%d: %d bytes\n", fd, addr, port, len); // what they are is for no terminal
        server.sendData(data, static_cast<unsigned int>(len));
    }
    void OnTcpClientConnected(int fd, const char*, unsigned short) override {
        server.sendData(fd, "welcome\n", 8);
    }
    void OnTcpClientDisconnected(int fd, const char*, unsigned short) override {
        std::printf("[%d] is gone\n", fd);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    Relay relay;
    if (!relay.server.connect(static_cast<unsigned short>(std::strtoul(argv[1], nullptr, 10)),
                              10)) // at most ten clients
        return 1;
    std::puts("press Enter to end");
    std::getchar();
    relay.server.disconnect(); // no callback comes after this
}
