#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <unistd.h>

int main() {
    HostNegotiator negotiator(nullptr, nullptr); // claims an id: 30, or else a random one
    const HostServer server("North mast", negotiator.syncLogin(30), 2); // answers every query from here on
    pause();
}
