/// @file
/// Counts what arrives at an endpoint.
#pragma once

#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

/// Listens from construction to destruction. Threads: the receiver's, which counts; next() and total() belong
/// to one other thread.
class DatagramCounter : public net::iUdpDataListener {
public:
    static constexpr std::size_t kMaxSources = 1000;

    /// A span of time, usually a second.
    struct Second {
        std::chrono::duration<double> duration{};
        long datagrams = 0;
        long bytes = 0;
        int smallest = 0; ///< bytes; 0 where there was no datagram
        int largest = 0;
        std::chrono::duration<double> longestGap{}; ///< without a datagram
        std::optional<long> dropped = 0L;           ///< by the system, for want of room; none: not known
        std::map<std::string, long> sources;        ///< datagrams by address and port; kMaxSources of them
        bool hasMoreSources = false;                ///< than those
    };

    /// @param localIp network order
    DatagramCounter(const NetAddress& endpoint, unsigned int localIp);

    /// What came since the last call.
    Second next();
    /// What next() told of, together.
    const Second& total() const { return m_total; }

    void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char*, int, const char*,
                                int length) override;

private:
    static void count(Second& second, const std::string& source, long datagrams);
    std::optional<long> dropped() const;

    const NetAddress m_endpoint;
    std::mutex m_mutex; // guards m_current and m_lastDatagram
    Second m_current;
    std::chrono::steady_clock::time_point m_lastDatagram = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_since = m_lastDatagram;
    long m_droppedBefore = 0; // by the socket there was then
    Second m_total;
    net::UdpReceiver m_receiver; // last: counts as soon as it is there
};
