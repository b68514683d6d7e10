// Keeps a connection to a TCP server: sends the lines of standard input, and prints what comes back.
//
//     example_tcp_client 127.0.0.1 4000

#include <UdpSocket/tcpsocket.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

class Reader : public net::iTcpDataListener {
public:
    virtual ~Reader() = default;
    // A stream has no message borders: one line may come in pieces, several lines at once.
    void OnTcpDataReceived(int, const char*, unsigned short, const char* data, int len) override {
        std::fwrite(data, 1, static_cast<size_t>(len), stdout); // of any kind: for a terminal, escape them
        std::fflush(stdout);
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char* addr, unsigned short) override {
        std::printf("lost %s, trying again every five seconds\n", addr);
    }
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    Reader reader; // outlives the client that calls it
    net::TcpClient client(&reader, argv[1], static_cast<unsigned short>(std::strtoul(argv[2], nullptr, 10)),
                          0);
    client.connectOnce(); // otherwise the first attempt comes after five seconds
    std::string line;
    while (std::getline(std::cin, line)) {
        line += '\n';
        if (!client.sendData(line.data(), static_cast<unsigned int>(line.size())))
            std::fputs("not sent: not connected\n", stderr);
    }
}
