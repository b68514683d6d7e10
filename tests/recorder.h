/// @file
/// What arrives at a UDP listener, to be waited for.
#pragma once

#include <UdpSocket/udpsocket.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

struct Datagram {
    std::string from; // "address:port"
    std::string to;
    std::string bytes;
};

class Recorder : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char* groupIp, int groupPort,
                                const char* data, int length) override {
        {
            std::lock_guard lock(m_mutex);
            m_datagrams.push_back({fromIp + (":" + std::to_string(fromPort)),
                                   groupIp + (":" + std::to_string(groupPort)),
                                   std::string(data, static_cast<std::size_t>(length))});
        }
        m_arrived.notify_all();
    }

    /// The next datagram; nothing when none came within @p timeout.
    std::optional<Datagram> next(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(m_mutex);
        if (!m_arrived.wait_for(lock, timeout, [this] { return !m_datagrams.empty(); }))
            return std::nullopt;
        Datagram first = std::move(m_datagrams.front());
        m_datagrams.pop_front();
        return first;
    }
    /// The bytes of the next datagram; "nothing" when none came.
    std::string nextBytes(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto datagram = next(timeout);
        return datagram ? datagram->bytes : "nothing";
    }

private:
    std::mutex m_mutex; // guards m_datagrams
    std::condition_variable m_arrived;
    std::deque<Datagram> m_datagrams;
};
