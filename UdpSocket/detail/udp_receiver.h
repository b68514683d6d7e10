/// @file
/// The implementation behind net::UdpReceiver, and the door through which the library's own receivers get a
/// larger receive buffer.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/udpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace net {

class UdpReceiverPrivate {
public:
    UdpReceiverPrivate(iUdpDataListener* listener, unsigned int localIp, const char* address,
                       unsigned short port, int bufferSize);
    ~UdpReceiverPrivate();

    /// Asks the system for @p bytes of receive buffer, beyond what the constructor asked for.
    static void growReceiveBuffer(UdpReceiver& receiver, int bytes);

    const std::string& address() const { return m_address; }
    unsigned short port() const { return m_port; }
    void notifyForQuit() { m_running = false; }

private:
    void report(const char* call, detail::SourceSite site = detail::SourceSite::here()) const;
    void pinToInterface(detail::SourceSite site);
    void recvThread();

    const std::string m_address;
    const unsigned short m_port;
    const unsigned int m_localIp; // network order
    detail::Descriptor m_socket;
    std::atomic<bool> m_running = false;
    std::thread m_thread;
    iUdpDataListener* const m_listener;
    const int m_bufferSize;
    const std::unique_ptr<char[]> m_buffer;
};

} // namespace net
