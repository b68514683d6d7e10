/// @file
/// The implementation behind MultiRadarClient.
#pragma once

#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/presence_checker.h>
#include <UdpSocket/detail/wire.h>
#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
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

/// Sockets, announcements and the radar table of one client.
///
/// Threads that enter: the application's, the checker thread (OnLocalIpChanged), the announcement receiver's
/// and the TCP client's. Locks, in the order in which they are taken: m_rebuildMutex, then m_transportMutex;
/// m_mutex and the mutex of the look-ups, in this order, are taken alone.
class MultiRadarClientPrivate : public net::iUdpDataListener,
                                public iMultiRadarCheckerListener,
                                public net::iTcpDataListener {
public:
    MultiRadarClientPrivate();

    /// One datagram, or one message out of the TCP stream; only @p data and @p len are looked at.
    void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char* groupIp, int groupPort,
                                const char* data, int len) override;
    virtual ~MultiRadarClientPrivate();

    /// Opens the sockets anew on @p localIp (network order).
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

    static std::string netAddrToString(NetAddress address);
    /// Writes the record to standard output unless it was the one written last. One thread at a time.
    static void printRadarAddrs(const RadarAddress& record);

private:
    struct Entry {
        std::string records;   // RadarAddress records back to back
        std::int64_t lastSeen; // seconds of net::detail::now()
    };

    void onLongAnnouncement(std::string_view datagram);
    void onShortAnnouncement(std::string_view datagram);
    void onTcpService(std::string_view datagram, const std::string& name, std::uint32_t radarIp);
    /// Stores the record unless a fixed radar is configured and the name is not one of its TCP entries.
    void updateHostInfo(const char* name, const RadarAddress& addr);
    void removeSilentRadars();
    std::string findRecords(const char* name) const;

    /// Destroys the object in @p slot, then puts what @p make returns there. Threads of the old object may be
    /// inside this one and sending, so no lock that they take is held meanwhile.
    template <class Transport>
    using Slot = std::unique_ptr<Transport> MultiRadarClientPrivate::*;
    template <class Transport, class Make>
    void replace(Slot<Transport> slot, Make make);
    template <class Transport>
    void destroy(Slot<Transport> slot);
    void sendToRadars(const wire::Code& code);
    /// Opens the sockets on m_localIp. @return false, and a line on standard error, where the system lacks
    /// what they need
    bool openSockets() REQUIRES(m_rebuildMutex);
    /// Opens them again after that, at most once a cycle of the checker.
    void mend();

    std::uint32_t m_radarIp = 0; // network order; 0: discover by multicast
    std::string m_tcpBuffer;     // what a message on the TCP stream has so far; TCP client's thread only

    net::detail::Mutex
        m_rebuildMutex ACQUIRED_BEFORE(m_transportMutex);   // one rebuild of the sockets at a time
    std::uint32_t m_localIp GUARDED_BY(m_rebuildMutex) = 0; // network order
    bool m_whole GUARDED_BY(m_rebuildMutex) = true;         // the last rebuild gave all that is needed
    net::detail::Mutex m_transportMutex;                    // held while sending, which does not block
    std::unique_ptr<net::UdpSender> m_resetSender GUARDED_BY(m_transportMutex);
    std::unique_ptr<net::UdpSender> m_querySender GUARDED_BY(m_transportMutex);
    std::unique_ptr<net::UdpReceiver> m_announceReceiver GUARDED_BY(m_transportMutex);
    std::unique_ptr<net::TcpClient> m_tcpClient GUARDED_BY(m_transportMutex);

    std::list<iRadarObserver*> m_radarObservers; // not owned

    mutable net::detail::Mutex m_mutex;
    std::map<std::string, Entry, std::less<>>
        m_radars GUARDED_BY(m_mutex); // looked up without making a string

    std::unique_ptr<MultiRadarCheckerPrivate> m_checker;
};
