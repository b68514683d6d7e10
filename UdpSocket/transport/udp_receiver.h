/// @file
/// The implementation behind net::UdpReceiver, and the door through which the library's own receivers get a
/// larger receive buffer, and follow the route.
#pragma once

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/link_history.h>
#include <UdpSocket/base/mutex.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/transport/source_text.h>
#include <UdpSocket/udpsocket.h>

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace net {

/// A receiver whose socket could not be set up, or whose interface was replaced, would hear nothing
/// permanently: its thread looks for that every 2 seconds, and sets up a new socket.
///
/// Threads: the receive thread, and one for the route command of a repair, which is killed after 5 seconds,
/// by the next repair or by the destructor. The socket is used by the receive thread alone; the constructor
/// sets up the first.
class UdpReceiverPrivate : public detail::ProcessBound {
public:
    UdpReceiverPrivate(iUdpDataListener* listener, unsigned int localIp, const char* address,
                       unsigned short port, int bufferSize);
    ~UdpReceiverPrivate();

    /// Asks the system for @p bytes of receive buffer, beyond what the constructor asked for. When it grants
    /// less, standard error says so, once a process.
    static void growReceiveBuffer(UdpReceiver& receiver, int bytes);
    /// Has a receiver without a local address move to the interface to which the route leads by now, where a
    /// sender without one sends; otherwise it stays on its own for as long as there is that.
    static void followRoute(UdpReceiver& receiver) { receiver.d->m_followsRoute = true; }
    /// False where the system had no thread for the receiver: it will never hear anything.
    static bool hasThread(const UdpReceiver& receiver);

    const std::string& address() const { return m_errors.address(); }
    unsigned short port() const { return m_errors.port(); }
    void notifyForQuit() { m_running = false; }

private:
    enum class Attempt { First, Repair };

    void report(Attempt attempt, const detail::ReportSite& site) const;
    void setUp(Attempt attempt);
    void addRoute(const std::string& name);
    void addRouteBesides(const std::string& name);
    void endRoute();
    void recvThread();
    void receive(detail::SourceText& sourceText);
    void repair();
    bool wasInterfaceRemoved();

    const detail::ErrorReporter m_errors; // the address and port listened on
    const unsigned int m_localIp;         // network order
    const unsigned int m_listened;        // the address, network order
    std::atomic<bool> m_running = true;
    std::atomic<bool> m_followsRoute = false;
    detail::Pause m_ending;

    // Of the socket at hand, for the thread that sets it up: the constructor's, then the receive thread.
    unsigned int m_interface = 0; // index; 0: none
    std::shared_ptr<detail::LinkHistory> m_links;
    std::uint64_t m_removals = 0; // of the interface, as m_links counts
    bool m_joined = false;        // or there was nothing to join
    std::thread m_route;          // runs the command of a repair
    detail::Pause m_routeEnding;  // of that command

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
