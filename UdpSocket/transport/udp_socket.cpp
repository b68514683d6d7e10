#include <UdpSocket/udpsocket.h>

#include <UdpSocket/base/error_line.h>
#include <UdpSocket/base/process.h>
#include <UdpSocket/base/socket.h>
#include <UdpSocket/base/thread.h>
#include <UdpSocket/transport/source_text.h>
#include <UdpSocket/transport/udp_sites.h>

#include <arpa/inet.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

namespace net {

namespace {

namespace udp_site = detail::udp_site;

constexpr timeval kReceiveTimeOut{2, 0}; // how often the thread looks at the running flag
constexpr auto kFailurePause = std::chrono::milliseconds(100); // after a call that did not even wait

detail::LineLimit s_receiveLines; // anybody can send empty datagrams

} // namespace

class UdpSocketPrivate : public detail::ProcessBound {
public:
    UdpSocketPrivate(iUdpDataListener* listener, int bufferSize)
        : m_listener(listener), m_bufferSize(bufferSize),
          m_buffer(new char[static_cast<size_t>(bufferSize)]) {}
    ~UdpSocketPrivate() { close(); }

    void SetSendSockAddr(unsigned int localIp, const char* groupIp, int port);
    void SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port);
    int SendData(const char* data, int length) const;
    void notifyForQuit() { m_running = false; }

private:
    void close();
    void receiveThread();

    detail::Descriptor m_socket;
    sockaddr_in m_destination{};
    detail::ErrorReporter m_errors; // group and port of the receiving side
    iUdpDataListener* const m_listener;
    const int m_bufferSize;
    const std::unique_ptr<char[]> m_buffer;
    std::thread m_thread;
    std::atomic<bool> m_running = false;
    detail::Pause m_ending;
};

void UdpSocketPrivate::close() {
    m_running = false;
    m_ending.stop();
    detail::wakeReader(m_socket);
    if (m_thread.joinable())
        m_thread.join();
    m_socket.reset();
    m_ending.reset();
}

void UdpSocketPrivate::SetSendSockAddr(unsigned int localIp, const char* groupIp, int port) {
    close();
    m_socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen()) {
        m_errors.report(udp_site::kSocketSendSocket);
        return;
    }
    if (!detail::setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1))
        m_errors.report(udp_site::kSocketSendReuse);
    if (!detail::joinGroup(m_socket, ::inet_addr(groupIp), localIp)) {
        m_errors.report(udp_site::kSocketSendJoin);
        return;
    }
    m_destination = detail::makeAddress(::inet_addr(groupIp), static_cast<unsigned short>(port));
}

void UdpSocketPrivate::SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port) {
    close();
    m_socket = detail::openSocket(SOCK_DGRAM, IPPROTO_UDP);
    if (!m_socket.isOpen()) {
        m_errors.report(udp_site::kSocketSocket);
        return;
    }
    if (!detail::setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1))
        m_errors.report(udp_site::kSocketReuse);
    m_errors.set(groupIp, port);
    if (!detail::bindTo(m_socket, detail::makeAddress(INADDR_ANY, port))) {
        m_errors.report(udp_site::kSocketBind);
        return;
    }
    if (!detail::joinGroup(m_socket, ::inet_addr(groupIp), localIp)) {
        m_errors.report(udp_site::kSocketJoin);
        return;
    }
    if (!detail::setOption(m_socket, SOL_SOCKET, SO_RCVTIMEO, kReceiveTimeOut))
        m_errors.report(udp_site::kSocketTimeOut);
    m_running = true;
    if (!detail::launchThread(m_thread, "radar-socket", [this] { receiveThread(); }))
        m_errors.report(udp_site::kSocketThread);
}

void UdpSocketPrivate::receiveThread() {
    detail::SourceText sourceText;
    while (m_running) {
        const detail::Received received = detail::receiveFrom(m_socket, m_buffer.get(), m_bufferSize);
        if (received.count > 0) {
            detail::runStep("UdpSocket: a datagram", [&] {
                const Call call(*this);
                m_listener->OnUdpGroupDataReceived(sourceText.of(received.source.sin_addr),
                                                   ntohs(received.source.sin_port),
                                                   m_errors.address().c_str(), m_errors.port(),
                                                   m_buffer.get(), static_cast<int>(received.count));
            });
            continue;
        }
        if (received.isTimeOut() || !m_running)
            continue;
        errno = received.error; // an empty datagram is reported with code 0
        m_errors.report(udp_site::kSocketReceive, s_receiveLines);
        if (!received.isDatagram())
            m_ending.sleep(kFailurePause);
    }
}

int UdpSocketPrivate::SendData(const char* data, int length) const {
    const auto sent = static_cast<int>(detail::sendTo(m_socket, data, length, m_destination));
    if (sent != length)
        m_errors.report(udp_site::kSocketSend);
    return sent;
}

UdpSocket::UdpSocket(iUdpDataListener* listener, int bufferSize)
    : d(new UdpSocketPrivate(listener, bufferSize)) {}
UdpSocket::~UdpSocket() {
    detail::destroy(d);
}
void UdpSocket::SetSendSockAddr(unsigned int localIp, const char* groupIp, int port) {
    d->SetSendSockAddr(localIp, groupIp, port);
}
void UdpSocket::SetGroupRecvSockAddr(unsigned int localIp, const char* groupIp, unsigned short port) {
    d->SetGroupRecvSockAddr(localIp, groupIp, port);
}
int UdpSocket::SendData(const char* data, int length) const {
    return d->SendData(data, length);
}
void UdpSocket::notifyForQuit() {
    d->notifyForQuit();
}

} // namespace net
