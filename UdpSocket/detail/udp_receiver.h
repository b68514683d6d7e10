/// @file
/// The implementation behind net::UdpReceiver, and the door through which the library's own receivers get a
/// larger receive buffer.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/socket_error.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/udpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace net {

/// A receiver whose socket could not be set up, or whose interface was replaced by another with its address,
/// would hear nothing for good: its thread looks for that every 2 seconds without a datagram, and sets up a
/// new socket.
class UdpReceiverPrivate {
public:
    UdpReceiverPrivate(iUdpDataListener* listener, unsigned int localIp, const char* address,
                       unsigned short port, int bufferSize);
    ~UdpReceiverPrivate();

    /// Asks the system for @p bytes of receive buffer, beyond what the constructor asked for. When it grants
    /// less, standard error says so, once a process.
    static void growReceiveBuffer(UdpReceiver& receiver, int bytes);
    /// False where the system had no thread for the receiver: it will never hear anything.
    static bool hasThread(const UdpReceiver& receiver);

    const std::string& address() const { return m_address; }
    unsigned short port() const { return m_port; }
    void notifyForQuit() { m_running = false; }

private:
    void report(const char* call, detail::SourceSite site = detail::SourceSite::here()) const;
    void report(bool wanted, const char* call, int line = __builtin_LINE()) const;
    void setUp(bool reporting);
    void pinToInterface(const detail::Descriptor& socket, bool reporting);
    void recvThread();
    void mend();

    const std::string m_address;
    const unsigned short m_port;
    const unsigned int m_localIp;  // network order
    const unsigned int m_listened; // m_address in network order
    std::atomic<bool> m_running = true;
    detail::Pause m_ending;
    unsigned int m_interface = 0; // its index, as it was when the socket was set up; 0: none
    bool m_joined = false;        // or there was nothing to join

    detail::Mutex
        m_socketMutex; // also guards m_socket, which the receive thread alone replaces, and reads without it
    detail::Descriptor m_socket;
    int m_wantedBuffer GUARDED_BY(m_socketMutex) =
        0; // bytes, beyond what the constructor asks for; 0: no more

    std::thread m_thread;
    iUdpDataListener* const m_listener;
    const int m_bufferSize;
    const std::unique_ptr<char[]> m_buffer;
};

} // namespace net
