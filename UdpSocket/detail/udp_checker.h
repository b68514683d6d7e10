/// @file
/// The implementation behind net::UdpChecker.
#pragma once

#include <UdpSocket/detail/descriptor.h>
#include <UdpSocket/detail/mutex.h>
#include <UdpSocket/detail/thread.h>
#include <UdpSocket/udpsocket.h>

#include <list>
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

    detail::Mutex m_mutex; // never held while a listener runs
    std::list<iUdpCheckerListener*> m_listeners GUARDED_BY(m_mutex);
    unsigned int m_foundIp GUARDED_BY(m_mutex) = 0; // network order; 0 while none

    detail::Mutex m_probesMutex; // the checker's thread alone changes the list
    std::list<Probe>
        m_probes GUARDED_BY(m_probesMutex); // the sockets stay open until their threads have ended

    detail::Pause m_pause;
    std::thread m_thread;
};

} // namespace net
