/// @file
/// Data for a display that is built without a radar.
#pragma once

#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Sends a rotating image and moving ARPA targets on the endpoints that a host id has in the plan.
///
/// Both formats are the simulator's own choice. Image: one datagram a spoke, 1024 spokes a revolution;
/// "SIMI", then in network byte order a 32-bit sequence number, the 16-bit spoke (0 is north, clockwise) and
/// the 16-bit number of spokes, then 512 samples of one byte from the centre to 6 nautical miles. ARPA: once
/// a second and target, an IEC 61162-1 TTM sentence.
///
/// Threads: none. All operations belong to one thread.
class Simulator {
public:
    /// @param hostId               1, or 16 to 63
    /// @param streams              1 or 2; each shows the same picture
    /// @param revolutionsPerMinute of the antenna
    Simulator(int hostId, unsigned int streams, double revolutionsPerMinute);

    /// Sends what has become due since the last call; call it about every 10 ms.
    void send();

private:
    struct Target {
        double x; // nautical miles to the east at the start
        double y; // to the north
        double course;
        double speed; // knots
        double xAfter(double hours) const;
        double yAfter(double hours) const;
    };
    struct Stream {
        std::unique_ptr<net::UdpSender> image;
        std::unique_ptr<net::UdpSender> arpa;
        double pausedUntil = 0; // seconds since the start
    };
    static const Target kTargets[3];

    std::string spoke(std::uint64_t sequence, double hours) const;
    static std::string sentence(std::size_t target, double hours);

    const double m_spokesPerSecond;
    std::vector<Stream> m_streams;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::uint64_t m_spokes = 0;    // sent so far
    std::uint32_t m_sentences = 0; // rounds of all targets sent so far
};
