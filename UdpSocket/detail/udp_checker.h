/// @file
/// The implementation behind net::UdpChecker.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/udpsocket.h>

#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace net {

class UdpCheckerPrivate {
public:
    UdpCheckerPrivate(const char* groupIp, unsigned short port, const char* expected);
    ~UdpCheckerPrivate();

    void addListener(iUdpCheckerListener* listener);
    void removeListener(iUdpCheckerListener* listener);

private:
    struct Probe {
        unsigned int localIp; // network order
        detail::Descriptor socket;
        bool heard = false;
        std::thread thread;
    };

    void check();
    unsigned int probeAll();
    detail::Descriptor openProbe(unsigned int localIp) const;
    bool receivesExpected(const detail::Descriptor& socket) const;
    void store(unsigned int foundIp);
    void report(const char* call, int line) const;

    const std::string m_group;
    const unsigned short m_port; // host order
    const char* const m_expected;

    std::mutex m_mutex; // guards m_listeners and m_foundIp; never held while a listener runs
    std::list<iUdpCheckerListener*> m_listeners;
    unsigned int m_foundIp = 0; // network order; 0 while none

    std::mutex m_probesMutex; // guards m_probes; the sockets stay open until their threads have ended
    std::list<Probe> m_probes;

    detail::Pause m_pause;
    std::thread m_thread;
};

} // namespace net
