#include <UdpSocket/hostnegotiator.h>
#include <UdpSocket/hostserver.h>
#include <unistd.h>

int main() {
    HostNegotiator negotiator(nullptr, nullptr);
    const unsigned char id = negotiator.syncLogin(30); // 30, or a random one where another host objects
    const HostServer server("North mast", id, 2);      // two streams; answers every query from here on
    pause();
}
