// Prints every change of a wired interface's address. It also configures the interface and restarts the
// machine's network: docs/network-management.md tells how to try it without harm.
#include <UdpSocket/netiphelper.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class Printer : public net::iNetIPListener {
public:
    void OnNetIPChanged(const std::string& ifname, const std::string& ip, bool dhcpAddress) override {
        std::printf("%s has %s%s\n", ifname.c_str(), ip.c_str(), dhcpAddress ? " (DHCP)" : "");
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc == 5 ? argv[1] : "";
    if (mode != "dhcp" && mode != "manual") {
        std::fprintf(stderr, "usage: %s dhcp|manual INTERFACE ADDRESS NETMASK\n", argv[0]);
        return 2;
    }
    Printer printer; // outlives the watch
    net::tNetIPHelper watch(mode == "dhcp", argv[2], argv[3], argv[4]);
    watch.AddNetIPListener(&printer);
    std::puts("Press Enter to end.");
    std::getchar();
    return EXIT_SUCCESS;
}
