// Prints which radars there are whenever that changes, in GLib's main loop, which GTK has as well.
#include <RadarWatch/radarwatch.h>

#include <glib-unix.h>

#include <cstdio>

gboolean take(gint, GIOCondition, gpointer data) {
    auto& watch = *static_cast<radar::Watch*>(data);
    while (watch.next(std::chrono::milliseconds(0))) {
    }
    std::puts("radars:");
    for (const radar::Radar& radar : watch.radars())
        std::printf("  %s, host id %d\n", radar.name.c_str(), radar.hostId);
    std::fflush(stdout);
    return G_SOURCE_CONTINUE;
}

int main() {
    radar::Watch watch;
    g_unix_fd_add(watch.descriptor(), G_IO_IN, &take, &watch);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
