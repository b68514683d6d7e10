// Prints which radars come and go, in an event loop of epoll.
#include <RadarWatch/radarwatch.h>
#include <UdpSocket/udpsocket.h>

#include <sys/epoll.h>

#include <cstdio>
#include <string>

using Kind = radar::Event::Kind;

// Names are bytes of any kind, and must not reach a terminal as they are.
std::string escaped(const std::string& name) {
    std::string text;
    for (const char byte : name) {
        char shown[5] = {byte};
        if (byte < 0x20 || byte > 0x7E)
            std::snprintf(shown, sizeof shown, "\\x%02X", static_cast<unsigned char>(byte));
        text += shown;
    }
    return text;
}

void print(const radar::Event& event) {
    const std::string name = escaped(event.radar.name);
    if (event.kind == Kind::Appeared)
        for (const RadarAddress& stream : event.radar.streams)
            std::printf("%s appeared: image on %s port %d\n", name.c_str(),
                        net::transAddr(stream.imageStream.ip), net::NtoHs(stream.imageStream.port));
    else if (event.kind == Kind::Changed)
        std::printf("%s changed\n", name.c_str());
    else if (event.kind == Kind::Left)
        std::printf("%s left\n", name.c_str());
    std::fflush(stdout);
}

int main() {
    radar::Watch watch;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = watch.descriptor();
    if (epoll == -1 || epoll_ctl(epoll, EPOLL_CTL_ADD, watch.descriptor(), &wanted) == -1) {
        std::perror("epoll");
        return 1;
    }
    for (;;) {
        epoll_event ready{};
        if (epoll_wait(epoll, &ready, 1, -1) != 1 || ready.data.fd != watch.descriptor())
            continue; // other descriptors of the loop would be served here
        while (const auto event = watch.next(std::chrono::milliseconds(0)))
            print(*event);
    }
}
