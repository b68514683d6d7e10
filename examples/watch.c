// Prints which radars come and go, and how much of one radar's image arrives: example_watch [NAME]
#include <RadarWatch/radarwatch_c.h>

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int checked(int result) {
    if (result < 0) {
        fprintf(stderr, "example_watch: %s\n", strerror(-result));
        exit(1);
    }
    return result;
}

// Names are bytes of any kind, and must not reach a terminal as they are.
static void print_name(const char* name) {
    for (; *name != '\0'; ++name)
        if ((unsigned char)*name >= 0x20 && (unsigned char)*name < 0x7F)
            putchar(*name);
        else
            printf("\\x%02X", (unsigned)(unsigned char)*name);
}

static void print_event(const radar_event* event) {
    static const char* const kinds[] = {"appeared",       "changed",     "left",          "conflict",
                                        "conflict ended", "local found", "local changed", "local lost"};
    if ((size_t)event->kind >= sizeof kinds / sizeof kinds[0])
        return; // of a later version
    printf("%s: ", kinds[event->kind]);
    if (event->kind <= RADAR_LEFT) {
        const radar_endpoint* image = &event->radar.streams[0][RADAR_IMAGE];
        char address[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &image->address, address, sizeof address);
        print_name(event->radar.name);
        printf(", image on %s port %d", address, ntohs(image->port));
    }
    putchar('\n');
}

// @return the bytes of what has come
static size_t read_image(radar_stream* stream) {
    size_t bytes = 0;
    radar_stream_event event = {.size = sizeof event};
    while (checked(radar_stream_next_event(stream, &event)) > 0)
        printf("image: event %d\n", (int)event.kind);
    radar_datagram datagrams[RADAR_MOST_AT_ONCE] = {{.size = sizeof datagrams[0]}};
    const int count = checked(radar_stream_read(stream, datagrams, RADAR_MOST_AT_ONCE, 0));
    for (int i = 0; i < count; ++i)
        bytes += datagrams[i].length; // a display draws datagrams[i].data
    return bytes;
}

int main(int argc, char** argv) {
    radar_watch* watch = NULL;
    radar_stream* stream = NULL;
    checked(radar_watch_new(&watch, NULL));
    if (argc > 1)
        checked(radar_stream_new(&stream, watch, argv[1], RADAR_IMAGE, NULL));

    struct pollfd waits[] = {
        {.fd = checked(radar_watch_descriptor(watch)), .events = POLLIN},
        {.fd = stream ? checked(radar_stream_descriptor(stream)) : -1, .events = POLLIN}};
    size_t bytes = 0;
    size_t told = 0;
    for (;;) {
        if (poll(waits, 2, -1) == -1 && errno != EINTR)
            checked(-errno);
        radar_event event = {.size = sizeof event};
        while (checked(radar_watch_next(watch, &event, 0)) > 0)
            print_event(&event);
        if (stream != NULL)
            bytes += read_image(stream);
        if (bytes / 1000000 > told)
            printf("image: %zu million bytes\n", told = bytes / 1000000);
        fflush(stdout);
    }
}
