/// @file
/// Records what threads report and print, for tests to wait for.
#pragma once

#include "test.h"

#include <UdpSocket/multiradarclient.h>
#include <UdpSocket/udpsocket.h>

#include <lab/node.h>

#include <deque>

/// A list that any thread adds to.
template <class Entry>
class Log {
public:
    void add(Entry entry) {
        std::lock_guard lock(m_mutex);
        m_entries.push_back(std::move(entry));
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_entries.clear();
    }
    std::vector<Entry> all() const {
        std::lock_guard lock(m_mutex);
        return {m_entries.begin(), m_entries.end()};
    }
    bool reaches(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(30)) const {
        const auto reached = [&] {
            std::lock_guard lock(m_mutex);
            return m_entries.size() >= count;
        };
        return comesTrue(reached, timeout);
    }
    /// Takes the first entry; nothing when none came within @p timeout.
    std::optional<Entry> next(std::chrono::milliseconds timeout) {
        if (!reaches(1, timeout))
            return std::nullopt;
        std::lock_guard lock(m_mutex);
        Entry first = std::move(m_entries.front());
        m_entries.pop_front();
        return first;
    }

private:
    mutable std::mutex m_mutex; // guards m_entries
    std::deque<Entry> m_entries;
};

/// An object whose sockets and threads are in a node's network.
template <class Made, class... Arguments>
std::unique_ptr<Made> makeIn(const lab::Node& node, Arguments&&... arguments) {
    const lab::Inside inside = node.enter();
    return std::make_unique<Made>(std::forward<Arguments>(arguments)...);
}

struct Datagram {
    std::string from; // "address:port"
    std::string to;
    std::string bytes;
};

class Recorder : public net::iUdpDataListener {
public:
    void OnUdpGroupDataReceived(const char* fromIp, int fromPort, const char* groupIp, int groupPort,
                                const char* data, int length) override {
        m_datagrams.add({fromIp + (":" + std::to_string(fromPort)),
                         groupIp + (":" + std::to_string(groupPort)),
                         std::string(data, static_cast<std::size_t>(length))});
    }
    std::optional<Datagram> next(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return m_datagrams.next(timeout);
    }
    /// The bytes of the next datagram; "nothing" when none came.
    std::string nextBytes(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        const auto datagram = next(timeout);
        return datagram ? datagram->bytes : "nothing";
    }

private:
    Log<Datagram> m_datagrams;
};

/// Records the local addresses that are reported to an application.
class Addresses : public iMultiRadarCheckerListener,
                  public net::iUdpCheckerListener,
                  public Log<std::string> {
    void OnLocalIpChanged(unsigned int localIp) override { add(net::transAddr(localIp)); }
    void OnUdpCheckerIpFound(unsigned int localIp) override { add(net::transAddr(localIp)); }
};

/// Captures the two standard streams while it lives; a failed test prints them in the end.
class Output {
public:
    Output() {
        std::fflush(stdout);
        for (const int stream : {1, 2}) {
            m_saved[stream] = ::dup(stream);
            m_kept[stream] = ::memfd_create("output", MFD_CLOEXEC);
            ::dup2(m_kept[stream], stream);
        }
    }
    ~Output() {
        const std::string all = out() + err();
        for (const int stream : {1, 2}) {
            ::dup2(m_saved[stream], stream);
            ::close(m_saved[stream]);
            ::close(m_kept[stream]);
        }
        if (testing::Test::HasFailure())
            std::fputs(all.c_str(), stderr);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    std::string out() const { return text(1); }
    std::string err() const { return text(2); }

private:
    std::string text(int stream) const {
        std::fflush(stdout);
        std::string all;
        char piece[4096];
        while (const ssize_t count =
                   ::pread(m_kept[stream], piece, sizeof piece, static_cast<off_t>(all.size())))
            all.append(piece, static_cast<std::size_t>(count));
        return all;
    }

    int m_saved[3]{};
    int m_kept[3]{};
};

template <class Action>
std::string outOf(Action&& action) {
    const Output output;
    action();
    return output.out();
}
template <class Action>
std::string errOf(Action&& action) {
    const Output output;
    action();
    return output.err();
}
