/// @file
/// How long the library's own timers run. The values are fixed for applications; tests set shorter ones.
#pragma once

#include <chrono>

namespace net::detail {

/// The search for the radars' interface.
struct SearchTiming {
    std::chrono::milliseconds beacons{3000}; ///< listening for beacons, once and again
    std::chrono::milliseconds join{1000};    ///< between joining the discovery group and the query
    std::chrono::milliseconds answers{2000}; ///< listening for what answers
    std::chrono::milliseconds pause{5000};   ///< between searches, and between looks at a configured address
};

struct Timing {
    SearchTiming search;
    std::chrono::milliseconds addressLook{1000}; ///< how soon a search's pause notices other addresses
    std::chrono::milliseconds objection{1000};   ///< how long others may object to a probe, and to a confirm
    std::chrono::milliseconds receiverRepair{2000}; ///< how soon a receiver notices a replaced interface
    std::chrono::milliseconds senderLook{2000};     ///< how soon a sender notices that its address has moved
    std::chrono::milliseconds checkerProbe{2000};   ///< how long UdpChecker listens through each address
    std::chrono::milliseconds checkerPause{5000};   ///< between its checks
    std::chrono::milliseconds clientTick{500};      ///< a TCP client's cycle, of which eleven make an attempt
    std::chrono::milliseconds watchPass{1000};      ///< the cycle of the watch of an interface
    std::chrono::milliseconds restartCarrier{5000}; ///< how long a carrier settles during a restart
    std::chrono::milliseconds radarLook{1000};      ///< between a Watch's queries, and looks at radars
};

/// The times in force, read when an object is made and at each new period. Any thread.
Timing timing();

/// Sets the times of the whole process. Any thread.
void setTiming(const Timing& timing);

} // namespace net::detail
