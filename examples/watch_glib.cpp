// Prints which radars there are whenever that changes, in GLib's main loop, which GTK has as well.
#include <RadarWatch/radarwatch.h>

#include <glib-unix.h>

#include <cstdio>

gboolean take(gint, GIOCondition, gpointer data) {
    auto& watch = *static_cast<radar::Watch*>(data);
    while (watch.next(std::chrono::milliseconds(0))) {
    }
    std::puts("radars:");
    for (const radar::Radar& radar : watch.radars()) {
        gchar* name = g_strescape(radar.name.c_str(), nullptr); // bytes of any kind, not fit for a terminal
        std::printf("  %s, host id %d\n", name, radar.hostId);
        g_free(name);
    }
    std::fflush(stdout);
    return G_SOURCE_CONTINUE;
}

int main() {
    radar::Watch watch;
    g_unix_fd_add(watch.descriptor(), G_IO_IN, &take, &watch);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
