/// @file
/// The implementation behind net::UdpSender, and the door through which the library sends its own datagrams.
#pragma once

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace net {

/// Any thread may send at any time.
class UdpSenderPrivate : public detail::ProcessBound {
public:
    UdpSenderPrivate(const char* address, unsigned short port, unsigned int localIp,
                     unsigned short localPort);

    /// @param flags of sendto
    int sendData(const char* data, int length, int flags = 0);
    int sendMultipleDatas(const std::vector<std::pair<const void*, int>>& datas);
    void setMulticastLoop(bool on);
    const std::string& address() const { return m_errors.address(); }
    unsigned short port() const { return m_errors.port(); }

    /// Sends without waiting for room: where the system has none, the datagram is lost, with an error line,
    /// of which there are no more than a thousand a second.
    static int sendNow(const UdpSender& sender, const char* data, int length) {
        return sender.d->sendData(data, length, MSG_DONTWAIT);
    }

private:
    struct Made {
        detail::Descriptor socket;
        bool interfaceSet = true;
    };
    Made setUp();
    bool ensureSocket();
    bool setInterface(const detail::Descriptor& socket) const;
    bool adoptInterface();
    void followAddress();

    const detail::ErrorReporter m_errors; // the destination's address and port
    const sockaddr_in m_destination;
    const sockaddr_in m_local;

    detail::Mutex m_setUpMutex;                                // one thread sets m_socket
    std::optional<bool> m_wantedLoop GUARDED_BY(m_setUpMutex); // else the profile decides
    detail::Descriptor m_socket;                               // made once, used from m_ready on
    std::atomic<bool> m_ready = false;
    std::atomic<bool> m_interfaceSet = true;
    std::atomic<std::chrono::steady_clock::time_point> m_nextLook{}; // whether the address has moved
};

} // namespace net
