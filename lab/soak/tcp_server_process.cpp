#include "tcp_server_process.h"

#include <UdpSocket/tcpsocket.h>

#include <lab/process.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace soak {

namespace {

constexpr const char* kServe = "--serve";

class ByteReporter : public net::iTcpDataListener {
    void OnTcpDataReceived(int, const char*, unsigned short, const char*, int length) override {
        const std::lock_guard lock(m_mutex);
        m_bytes += length;
        ::dprintf(m_output, "bytes %ld\n", m_bytes);
    }
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

    const int m_output = STDERR_FILENO; // standard output has the library's own lines
    std::mutex m_mutex;                 // guards m_bytes
    long m_bytes = 0;
};

} // namespace

std::vector<std::string> serverCommand(unsigned short port) {
    return {lab::programBeside("soak"), kServe, std::to_string(port)};
}

bool isServer(int argc, char** argv) {
    return argc == 3 && std::strcmp(argv[1], kServe) == 0;
}

void runServer(char** argv) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        std::exit(EXIT_FAILURE);
    ByteReporter reporter;
    net::TcpServer server(&reporter);
    if (!server.connect(static_cast<unsigned short>(std::strtoul(argv[2], nullptr, 10)), 10))
        std::exit(EXIT_FAILURE);
    ::dprintf(STDERR_FILENO, "listening\n");
    for (;;)
        ::pause();
}

} // namespace soak
