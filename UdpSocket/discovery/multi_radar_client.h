/// @file
/// The implementation behind MultiRadarClient.
#pragma once

#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/discovery/multi_radar_checker.h>
#include <UdpSocket/discovery/radar_sockets.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/protocol/radar_table.h>
#include <UdpSocket/protocol/tcp_framing.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Told of every update of the radar table, on the thread that brought it and without a lock. Nothing
/// registers yet.
class iRadarObserver {
public:
    virtual void OnRadarFound(const char* name) = 0;
    virtual void OnRadarRemoved(const char* name) = 0;
    virtual void OnRadarUpdated(const char* name, const RadarAddress* record) = 0;

protected:
    ~iRadarObserver() = default;
};

/// What one client hears of the radars, and what it hands out of that.
///
/// Threads that enter: the application's, the checker thread (OnLocalIpChanged), the announcement receiver's
/// and the TCP client's. m_mutex is taken alone, or before the one of the records handed out last.
class MultiRadarClientPrivate : public net::iUdpDataListener,
                                public iMultiRadarCheckerListener,
                                public net::iTcpDataListener,
                                public net::detail::ProcessBound {
public:
    MultiRadarClientPrivate();

    /// One datagram on the discovery group; only @p fromIp, @p data and @p len are looked at.
    void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char* groupIp, int groupPort,
                                const char* data, int len) override;
    virtual ~MultiRadarClientPrivate();

    /// Opens the sockets on @p localIp (network order).
    void OnLocalIpChanged(unsigned int localIp) override;

    /// A chunk of the stream from the fixed radar: the same messages back to back.
    void OnTcpDataReceived(int fd, const char* addr, unsigned short port, const char* data, int len) override;
    void OnTcpClientConnected(int, const char*, unsigned short) override {}
    void OnTcpClientDisconnected(int, const char*, unsigned short) override {}

    void query();
    void resetRadar();
    int getRadar(char (*names)[24], int max) const;
    std::vector<std::string> getRadar() const;
    const RadarAddress* getAddress(const char* name, int stream) const;
    int getRadarStreamCount(const char* name) const;
    void queryForAdjust(const char* name);
    MultiRadarCheckerPrivate& checker() { return *m_checker; }

private:
    void takeAnnouncement(std::string_view datagram, std::uint32_t source);
    void updateHostInfo(std::string_view name, const RadarAddress& addr, std::uint32_t source);
    std::optional<RadarAddress> find(const char* name) const;

    const std::uint32_t m_radarIp;  // network order; 0: discover by multicast
    protocol::TcpFraming m_framing; // TCP client's thread only
    RadarSockets m_sockets;
    std::list<iRadarObserver*> m_radarObservers; // not owned

    mutable net::detail::Mutex m_mutex;
    protocol::RadarTable m_radars GUARDED_BY(m_mutex);

    std::unique_ptr<MultiRadarCheckerPrivate> m_checker;
};
