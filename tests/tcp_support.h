/// @file
/// What the tests of the TCP classes share: plain sockets as the other end, and a listener that takes notes.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/tcpsocket.h>
#include <UdpSocket/udpsocket.h>

#include <gmock/gmock.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tcp_test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using net::detail::Descriptor;

constexpr auto kDeadline = 20s; // for what must come; generous, since sanitizers and other tests slow us down
constexpr auto kQuick = 1s;     // for what must not wait

inline bool eventually(const std::function<bool()>& condition, Clock::duration deadline = kDeadline) {
    const auto end = Clock::now() + deadline;
    while (!condition()) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

template <class Action>
Clock::duration timeOf(Action&& action) {
    const auto begin = Clock::now();
    action();
    return Clock::now() - begin;
}

/// A plain TCP socket, the other end of what is tested.
class Peer {
public:
    explicit Peer(Descriptor socket) : m_socket(std::move(socket)) {}
    /// Connects to a port of the loopback address, from @p from.
    explicit Peer(unsigned short port, const char* from = "127.0.0.1", int receiveBuffer = 0)
        : m_socket(net::detail::openSocket(SOCK_STREAM)) {
        if (receiveBuffer != 0)
            net::detail::setOption(m_socket, SOL_SOCKET, SO_RCVBUF, receiveBuffer);
        sockaddr_in address = loopback(0, from);
        EXPECT_EQ(::bind(fd(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address = loopback(port);
        EXPECT_EQ(::connect(fd(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << std::strerror(errno);
    }

    static sockaddr_in loopback(unsigned short port, const char* ip = "127.0.0.1") {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = net::transAddr(ip);
        return address;
    }
    static unsigned short portOf(const Descriptor& socket) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    int fd() const { return m_socket.get(); }
    bool isOpen() const { return m_socket.isOpen(); }
    unsigned short port() const { return portOf(m_socket); }
    void close() { m_socket.reset(); }
    void reset() { // ends with RST instead of FIN
        net::detail::setOption(m_socket, SOL_SOCKET, SO_LINGER, linger{1, 0});
        close();
    }
    bool send(const std::string& bytes) const {
        return ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    /// Reads until @p count bytes have come, or the stream ends, or the deadline.
    std::string read(size_t count) const {
        std::string bytes;
        char buffer[65536];
        pollfd readable{fd(), POLLIN, 0};
        while (bytes.size() < count && ::poll(&readable, 1, 20000) == 1) {
            const ssize_t got = ::recv(fd(), buffer, std::min(sizeof buffer, count - bytes.size()), 0);
            if (got <= 0)
                break;
            bytes.append(buffer, static_cast<size_t>(got));
        }
        return bytes;
    }
    bool hasData(Clock::duration deadline = kDeadline) const {
        pollfd readable{fd(), POLLIN, 0};
        return ::poll(&readable, 1,
                      static_cast<int>(
                          std::chrono::duration_cast<std::chrono::milliseconds>(deadline).count())) == 1;
    }
    /// Whether the stream ends in time, with FIN or RST; what comes before is dropped.
    bool ends() const {
        char byte[4096];
        while (hasData()) {
            if (::recv(fd(), byte, sizeof byte, 0) <= 0)
                return true;
        }
        return false;
    }

private:
    Descriptor m_socket;
};

/// A plain listening socket on a port that the system chose, or on a given one.
class Listening {
public:
    explicit Listening(unsigned short port = 0) : m_socket(net::detail::openSocket(SOCK_STREAM)) {
        net::detail::setOption(m_socket, SOL_SOCKET, SO_REUSEADDR, 1);
        const sockaddr_in address = Peer::loopback(port);
        EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(m_socket.get(), 100), 0);
    }
    unsigned short port() const { return Peer::portOf(m_socket); }
    Peer accept() const {
        pollfd readable{m_socket.get(), POLLIN, 0};
        if (::poll(&readable, 1, 20000) != 1)
            return Peer(Descriptor());
        return Peer(Descriptor(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    }

private:
    Descriptor m_socket;
};

/// A port that nobody listens on.
inline unsigned short freePort() {
    return Listening().port();
}

struct Event {
    enum Kind { Connected, Disconnected } kind;
    int fd;
    std::string addr;
    unsigned short port;
    bool operator==(const Event&) const = default;
};

/// What a callback does besides; may be set while callbacks come.
template <class... Arguments>
class Hook {
public:
    Hook& operator=(std::function<void(Arguments...)> action) {
        std::lock_guard lock(m_mutex);
        m_action = std::move(action);
        return *this;
    }
    void operator()(Arguments... arguments) const {
        std::unique_lock lock(m_mutex);
        const auto action = m_action;
        lock.unlock();
        if (action)
            action(arguments...);
    }

private:
    mutable std::mutex m_mutex; // guards m_action
    std::function<void(Arguments...)> m_action;
};

/// Takes notes; the hooks run on the thread of the callback, after the note.
class Notes : public net::iTcpDataListener {
public:
    virtual ~Notes() = default;
    Hook<int> onConnected;                // the descriptor
    Hook<int> onDisconnected;             // the descriptor
    Hook<int, const std::string&> onData; // the descriptor and the bytes

    void OnTcpDataReceived(int fd, const char*, unsigned short, const char* data, int len) override {
        const std::string bytes(data, static_cast<size_t>(len));
        {
            std::lock_guard lock(m_mutex);
            m_bytes += bytes;
        }
        onData(fd, bytes);
    }
    void OnTcpClientConnected(int fd, const char* addr, unsigned short port) override {
        note({Event::Connected, fd, addr, port});
        onConnected(fd);
    }
    void OnTcpClientDisconnected(int fd, const char* addr, unsigned short port) override {
        note({Event::Disconnected, fd, addr, port});
        onDisconnected(fd);
    }

    std::vector<Event> events() const {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    size_t count(Event::Kind kind) const {
        size_t result = 0;
        for (const Event& event : events())
            result += event.kind == kind;
        return result;
    }
    std::string bytes() const {
        std::lock_guard lock(m_mutex);
        return m_bytes;
    }

private:
    void note(const Event& event) {
        std::lock_guard lock(m_mutex);
        m_events.push_back(event);
    }

    mutable std::mutex m_mutex; // guards both
    std::vector<Event> m_events;
    std::string m_bytes;
};

/// Everything written to the two standard streams from construction to the take calls.
class Output {
public:
    Output() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    std::string out() { return testing::internal::GetCapturedStdout(); }
    std::string err() { return testing::internal::GetCapturedStderr(); }
};

/// A program that runs until the object ends.
class Program {
public:
    explicit Program(const std::string& command) : m_pid(::fork()) {
        if (m_pid == 0) {
            ::execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
            ::_exit(127);
        }
    }
    ~Program() {
        ::kill(m_pid, SIGKILL);
        wait();
    }
    void wait() {
        if (m_pid != -1)
            ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid;
};

} // namespace tcp_test
