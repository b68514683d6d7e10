#include "udp_implementations.h"

#include "bench.h"

#include <UdpSocket/base/socket.h>
#include <UdpSocket/udpsocket.h>

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>

#include <asio.hpp>
#include <uv.h>

#include <sys/epoll.h>

#include <atomic>
#include <deque>
#include <system_error>
#include <thread>

namespace bench {

namespace {

using net::detail::Descriptor;

void require(bool done, const char* what) {
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

Descriptor rawSender(const UdpPlan& plan) {
    Descriptor sender = net::detail::openSocket(SOCK_DGRAM);
    const sockaddr_in local = socketAddress(plan.localIp, 0);
    require(net::detail::setOption(sender, IPPROTO_IP, IP_MULTICAST_IF, local.sin_addr), "IP_MULTICAST_IF");
    return sender;
}

/// What the raw implementations and POCO share: a thread for each group.
class Threads {
public:
    template <class Body>
    void add(Body body) {
        m_threads.emplace_back(std::move(body));
    }
    void join() {
        for (std::thread& thread : m_threads)
            thread.join();
        m_threads.clear();
    }
    std::atomic<bool> running = true;

private:
    std::vector<std::thread> m_threads;
};

class RawSending : public Udp {
public:
    explicit RawSending(const UdpPlan& plan)
        : m_sender(rawSender(plan)),
          m_destination(socketAddress(plan.destination.address, plan.destination.port)) {}
    void send(const char* data, std::size_t length) override {
        ::sendto(m_sender.get(), data, length, 0, reinterpret_cast<const sockaddr*>(&m_destination),
                 sizeof m_destination);
    }
    void sendMany(const Datagrams& datagrams) override {
        std::vector<iovec> buffers(datagrams.size());
        std::vector<mmsghdr> messages(datagrams.size());
        for (std::size_t i = 0; i < datagrams.size(); ++i) {
            buffers[i] = {const_cast<void*>(datagrams[i].first),
                          static_cast<std::size_t>(datagrams[i].second)};
            messages[i].msg_hdr = {&m_destination, sizeof m_destination, &buffers[i], 1, nullptr, 0, 0};
        }
        ::sendmmsg(m_sender.get(), messages.data(), static_cast<unsigned int>(messages.size()), 0);
    }

protected:
    Descriptor m_sender;
    sockaddr_in m_destination;
};

class Raw : public RawSending {
public:
    explicit Raw(const UdpPlan& plan) : RawSending(plan) {
        for (const Group& group : plan.groups) {
            const int socket = m_sockets.emplace_back(rawGroupSocket(group, plan.localIp)).get();
            m_threads.add([this, socket, received = plan.received] {
                const std::unique_ptr<char[]> buffer(new char[kUdpBuffer]);
                sockaddr_in source;
                socklen_t length = sizeof source;
                while (m_threads.running) {
                    const ssize_t count = ::recvfrom(socket, buffer.get(), kUdpBuffer, 0,
                                                     reinterpret_cast<sockaddr*>(&source), &length);
                    if (count > 0)
                        received(this, buffer.get(), static_cast<std::size_t>(count));
                }
            });
        }
    }
    ~Raw() override {
        m_threads.running = false;
        for (const Descriptor& socket : m_sockets)
            net::detail::wakeReader(socket);
        m_threads.join();
    }

protected:
    std::deque<Descriptor> m_sockets;

private:
    Threads m_threads;
};

/// Every wait for a datagram but the first ends after half a second, as the library's do.
class RawWithTimeOut : public Raw {
public:
    explicit RawWithTimeOut(const UdpPlan& plan) : Raw(plan) {
        for (const Descriptor& socket : m_sockets)
            require(net::detail::setOption(socket, SOL_SOCKET, SO_RCVTIMEO, timeval{0, 500000}), "time-out");
    }
};

class RawLoop : public RawSending {
public:
    explicit RawLoop(const UdpPlan& plan) : RawSending(plan), m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        for (const Group& group : plan.groups) {
            const int socket = m_sockets.emplace_back(rawGroupSocket(group, plan.localIp)).get();
            epoll_event event{EPOLLIN, {.fd = socket}};
            require(::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
        }
        m_threads.add([this, received = plan.received] {
            const std::unique_ptr<char[]> buffer(new char[kUdpBuffer]);
            epoll_event events[64];
            sockaddr_in source;
            socklen_t length = sizeof source;
            while (m_threads.running) {
                const int ready = ::epoll_wait(m_epoll.get(), events, 64, 100);
                for (int i = 0; i < ready; ++i) {
                    const ssize_t count =
                        ::recvfrom(events[i].data.fd, buffer.get(), kUdpBuffer, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&source), &length);
                    if (count > 0)
                        received(this, buffer.get(), static_cast<std::size_t>(count));
                }
            }
        });
    }
    ~RawLoop() override {
        m_threads.running = false;
        m_threads.join();
    }

private:
    Descriptor m_epoll;
    std::deque<Descriptor> m_sockets;
    Threads m_threads;
};

class Library : public Udp, public net::iUdpDataListener {
public:
    explicit Library(const UdpPlan& plan) : m_received(plan.received) {
        const unsigned int local = net::transAddr(plan.localIp.c_str());
        if (plan.destination.port != 0)
            m_sender = std::make_unique<net::UdpSender>(plan.destination.address.c_str(),
                                                        plan.destination.port, local, 0);
        for (const Group& group : plan.groups)
            m_receivers.push_back(std::make_unique<net::UdpReceiver>(this, local, group.address.c_str(),
                                                                     group.port, kUdpBuffer));
    }
    ~Library() override { m_receivers.clear(); }
    void send(const char* data, std::size_t length) override {
        m_sender->sendData(data, static_cast<int>(length));
    }
    void sendMany(const Datagrams& datagrams) override { m_sender->sendMultipleDatas(datagrams); }
    void OnUdpGroupDataReceived(const char*, int, const char*, int, const char* data, int length) override {
        m_received(this, data, static_cast<std::size_t>(length));
    }

private:
    const std::function<void(Udp*, const char*, std::size_t)> m_received;
    std::unique_ptr<net::UdpSender> m_sender;
    std::vector<std::unique_ptr<net::UdpReceiver>> m_receivers;
};

class Asio : public Udp {
    using udp = asio::ip::udp;

public:
    explicit Asio(const UdpPlan& plan)
        : m_received(plan.received), m_sender(m_context, udp::v4()),
          m_local(asio::ip::make_address_v4(plan.localIp)) {
        m_sender.set_option(asio::ip::multicast::outbound_interface(m_local));
        if (plan.destination.port != 0)
            m_destination = {asio::ip::make_address_v4(plan.destination.address), plan.destination.port};
        for (const Group& group : plan.groups) {
            Channel& channel = m_channels.emplace_back(m_context);
            const auto address = asio::ip::make_address_v4(group.address);
            channel.socket.open(udp::v4());
            channel.socket.set_option(udp::socket::reuse_address(true));
            channel.socket.set_option(udp::socket::receive_buffer_size(kSocketBuffer));
            channel.socket.bind({address, group.port});
            channel.socket.set_option(asio::ip::multicast::join_group(address, m_local));
            receive(channel);
        }
        if (!plan.groups.empty())
            m_thread = std::thread([this] { m_context.run(); });
    }
    ~Asio() override {
        m_context.stop();
        if (m_thread.joinable())
            m_thread.join();
    }
    void send(const char* data, std::size_t length) override {
        m_sender.send_to(asio::buffer(data, length), m_destination);
    }

private:
    struct Channel {
        explicit Channel(asio::io_context& context) : socket(context) {}
        udp::socket socket;
        udp::endpoint source{};
        char buffer[kUdpBuffer];
    };
    void receive(Channel& channel) {
        channel.socket.async_receive_from(asio::buffer(channel.buffer), channel.source,
                                          [this, &channel](asio::error_code error, std::size_t count) {
                                              if (!error)
                                                  m_received(this, channel.buffer, count);
                                              receive(channel);
                                          });
    }

    const std::function<void(Udp*, const char*, std::size_t)> m_received;
    asio::io_context m_context{1};
    udp::socket m_sender;
    asio::ip::address_v4 m_local;
    udp::endpoint m_destination;
    std::deque<Channel> m_channels;
    std::thread m_thread;
};

class Libuv : public Udp {
public:
    explicit Libuv(const UdpPlan& plan) : m_received(plan.received), m_destination() {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_stop, [](uv_async_t* handle) { uv_stop(handle->loop); });
        uv_udp_init(&m_loop, &m_sender);
        if (plan.destination.port != 0) {
            m_destination = socketAddress(plan.destination.address, plan.destination.port);
            const sockaddr_in any =
                socketAddress("0.0.0.0", 0); // an interface can be set on a bound one only
            check(uv_udp_bind(&m_sender, reinterpret_cast<const sockaddr*>(&any), 0));
            check(uv_udp_set_multicast_interface(&m_sender, plan.localIp.c_str()));
        }
        for (const Group& group : plan.groups) {
            Channel& channel = m_channels.emplace_back();
            channel.owner = this;
            uv_udp_init(&m_loop, &channel.handle);
            channel.handle.data = &channel;
            const sockaddr_in address = socketAddress(group.address, group.port);
            check(
                uv_udp_bind(&channel.handle, reinterpret_cast<const sockaddr*>(&address), UV_UDP_REUSEADDR));
            check(uv_udp_set_membership(&channel.handle, group.address.c_str(), plan.localIp.c_str(),
                                        UV_JOIN_GROUP));
            int size = kSocketBuffer;
            uv_recv_buffer_size(reinterpret_cast<uv_handle_t*>(&channel.handle), &size);
            check(uv_udp_recv_start(&channel.handle, giveBuffer, take));
        }
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    ~Libuv() override {
        uv_async_send(&m_stop);
        m_thread.join(); // the handles go with the process
    }
    void send(const char* data, std::size_t length) override {
        const uv_buf_t buffer = uv_buf_init(const_cast<char*>(data), static_cast<unsigned int>(length));
        uv_udp_try_send(&m_sender, &buffer, 1, reinterpret_cast<const sockaddr*>(&m_destination));
    }

private:
    struct Channel {
        uv_udp_t handle;
        Libuv* owner;
        char buffer[kUdpBuffer];
    };
    static void check(int result) {
        if (result != 0)
            throw std::runtime_error(uv_strerror(result));
    }
    static void giveBuffer(uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
        *buffer = uv_buf_init(static_cast<Channel*>(handle->data)->buffer, kUdpBuffer);
    }
    static void take(uv_udp_t* handle, ssize_t count, const uv_buf_t* buffer, const sockaddr*, unsigned int) {
        if (count > 0) {
            Libuv* const owner = static_cast<Channel*>(handle->data)->owner;
            owner->m_received(owner, buffer->base, static_cast<std::size_t>(count));
        }
    }

    const std::function<void(Udp*, const char*, std::size_t)> m_received;
    uv_loop_t m_loop;
    uv_async_t m_stop;
    uv_udp_t m_sender;
    sockaddr_in m_destination;
    std::deque<Channel> m_channels;
    std::thread m_thread;
};

class Poco : public Udp {
    using Address = ::Poco::Net::SocketAddress;

public:
    explicit Poco(const UdpPlan& plan) {
        const auto interface =
            ::Poco::Net::NetworkInterface::forAddress(::Poco::Net::IPAddress(plan.localIp));
        if (plan.destination.port != 0) {
            m_destination = Address(plan.destination.address, plan.destination.port);
            m_sender.setInterface(interface);
        }
        for (const Group& group : plan.groups) {
            const Address address(group.address, group.port);
            ::Poco::Net::MulticastSocket& socket = m_sockets.emplace_back(address, true);
            socket.setReceiveBufferSize(kSocketBuffer);
            socket.joinGroup(address.host(), interface);
            socket.setReceiveTimeout(::Poco::Timespan(0, 500000));
            m_threads.add([this, &socket, received = plan.received] {
                const std::unique_ptr<char[]> buffer(new char[kUdpBuffer]);
                Address source;
                while (m_threads.running) {
                    try {
                        const int count = socket.receiveFrom(buffer.get(), kUdpBuffer, source);
                        received(this, buffer.get(), static_cast<std::size_t>(count));
                    } catch (const ::Poco::Exception&) { // a time-out, or the end
                    }
                }
            });
        }
    }
    ~Poco() override {
        m_threads.running = false;
        for (::Poco::Net::MulticastSocket& socket : m_sockets)
            ::shutdown(socket.impl()->sockfd(), SHUT_RD);
        m_threads.join();
    }
    void send(const char* data, std::size_t length) override {
        m_sender.sendTo(data, static_cast<int>(length), m_destination);
    }

private:
    ::Poco::Net::MulticastSocket m_sender{::Poco::Net::IPAddress::IPv4};
    Address m_destination;
    std::deque<::Poco::Net::MulticastSocket> m_sockets;
    Threads m_threads;
};

template <class Implementation>
std::unique_ptr<Udp> make(const UdpPlan& plan) {
    return std::make_unique<Implementation>(plan);
}

} // namespace

net::detail::Descriptor rawGroupSocket(const Group& group, const std::string& localIp) {
    Descriptor socket = net::detail::openSocket(SOCK_DGRAM);
    const sockaddr_in address = socketAddress(group.address, group.port);
    const ip_mreq membership{address.sin_addr, socketAddress(localIp, 0).sin_addr};
    require(net::detail::setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1) &&
                net::detail::setOption(socket, SOL_SOCKET, SO_RCVBUF, kSocketBuffer) &&
                ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                net::detail::setOption(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, membership),
            "raw socket");
    return socket;
}

std::unique_ptr<Udp> makeRawLoop(const UdpPlan& plan) {
    return make<RawLoop>(plan);
}

std::unique_ptr<Udp> makeRawWithTimeOut(const UdpPlan& plan) {
    return make<RawWithTimeOut>(plan);
}

const std::vector<UdpImplementation>& udpImplementations() {
    static const std::vector<UdpImplementation> implementations{{"raw", make<Raw>},
                                                                {"library", make<Library>},
                                                                {"asio", make<Asio>},
                                                                {"libuv", make<Libuv>},
                                                                {"POCO", make<Poco>}};
    return implementations;
}

} // namespace bench
