// Prints which radars come and go, in an event loop of epoll.
#include <RadarWatch/radarwatch.h>
#include <UdpSocket/udpsocket.h>

#include <sys/epoll.h>

#include <cstdio>

using Kind = radar::Event::Kind;

void print(const radar::Event& event) {
    if (event.kind == Kind::Appeared)
        for (const RadarAddress& stream : event.radar.streams)
            std::printf("%s appeared: image on %s port %d\n", event.radar.name.c_str(),
                        net::transAddr(stream.imageStream.ip), net::NtoHs(stream.imageStream.port));
    else if (event.kind == Kind::Changed)
        std::printf("%s changed\n", event.radar.name.c_str());
    else if (event.kind == Kind::Left)
        std::printf("%s left\n", event.radar.name.c_str());
    std::fflush(stdout);
}

int main() {
    radar::Watch watch;
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = watch.descriptor();
    epoll_ctl(epoll, EPOLL_CTL_ADD, watch.descriptor(), &wanted);
    for (;;) {
        epoll_event ready{};
        if (epoll_wait(epoll, &ready, 1, -1) != 1 || ready.data.fd != watch.descriptor())
            continue; // other descriptors of the loop would be served here
        while (const auto event = watch.next(std::chrono::milliseconds(0)))
            print(*event);
    }
}
