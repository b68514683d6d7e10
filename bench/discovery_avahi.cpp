// Discovery by mDNS: a daemon for each host, and one with a bus of its own for the display.

#include "discovery_implementations.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

namespace bench {

namespace {

using namespace std::chrono_literals;

constexpr const char* kServiceType = "_radar._udp";

/// Directories of this process alone for what daemons write at run time, and for the services that they read.
void makeOwnDirectories() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/run", "tmpfs", 0, "mode=755") != 0 ||
        ::mount("none", "/etc/avahi/services", "tmpfs", 0, "mode=755") != 0)
        throw std::runtime_error("cannot make directories for a daemon");
    std::filesystem::create_directories("/run/dbus");
}

pid_t startProgram(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (std::freopen("/dev/null", "w", stderr) != nullptr)
            ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    return child;
}

pid_t startDaemon(const std::string& hostName, bool withBus) {
    std::ofstream("/run/avahi.conf") << "[server]\nhost-name=" << hostName
                                     << "\nuse-ipv6=no\nallow-interfaces=" << kInterface
                                     << "\nenable-dbus=" << (withBus ? "yes" : "no")
                                     << "\n[wide-area]\nenable-wide-area=no\n"
                                        "[publish]\npublish-workstation=no\npublish-hinfo=no\n";
    return startProgram(
        {"avahi-daemon", "--file=/run/avahi.conf", "--no-drop-root", "--no-chroot", "--no-rlimits"});
}

std::shared_ptr<void> avahiHost(int number) {
    makeOwnDirectories();
    std::ofstream("/etc/avahi/services/radar.service")
        << "<?xml version=\"1.0\"?><!DOCTYPE service-group SYSTEM \"avahi-service.dtd\">"
        << "<service-group><name>radar " << number << "</name><service><type>" << kServiceType
        << "</type><port>6878</port><txt-record>endpoints=" << std::string(180, 'x')
        << "</txt-record></service></service-group>";
    startDaemon("host" + std::to_string(number), false);
    return nullptr;
}

/// Warm: the daemon has heard of all hosts before.
class AvahiFinder : public Finder {
public:
    AvahiFinder() {
        makeOwnDirectories();
        std::ofstream("/run/bus.conf")
            << "<busconfig><type>system</type><listen>unix:path=/run/dbus/system_bus_socket</listen>"
               "<policy context=\"default\"><allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
               "<allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>";
        startProgram({"dbus-daemon", "--config-file=/run/bus.conf", "--nofork", "--nopidfile"});
        awaitOrFail([] { return std::filesystem::exists("/run/dbus/system_bus_socket"); }, "dbus-daemon");
        m_daemon = startDaemon("display", true);
        m_poll = avahi_simple_poll_new();
        awaitOrFail(
            [&] {
                m_client = avahi_client_new(
                    avahi_simple_poll_get(m_poll), AvahiClientFlags(0),
                    [](AvahiClient*, AvahiClientState, void*) {}, nullptr, nullptr);
                return m_client != nullptr;
            },
            "avahi-daemon");
        find(kHosts);
    }

    double find(int hosts) override {
        const auto start = Clock::now();
        m_found.clear();
        AvahiServiceBrowser* const browser = avahi_service_browser_new(
            m_client, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, kServiceType, nullptr, AvahiLookupFlags(0),
            [](AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
               const char* name, const char* type, const char* domain, AvahiLookupResultFlags, void* self) {
                if (event == AVAHI_BROWSER_NEW)
                    avahi_service_resolver_new(static_cast<AvahiFinder*>(self)->m_client, interface, protocol,
                                               name, type, domain, AVAHI_PROTO_INET, AvahiLookupFlags(0),
                                               resolved, self);
            },
            this);
        while (m_found.size() < static_cast<std::size_t>(hosts)) {
            if (browser == nullptr || Clock::now() - start > 15s)
                throw std::runtime_error("not all hosts found");
            avahi_simple_poll_iterate(m_poll, 100);
        }
        const double time = Seconds(Clock::now() - start).count() * 1e3;
        avahi_service_browser_free(browser);
        return time;
    }
    pid_t helper() const override { return m_daemon; }

private:
    static void resolved(AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol,
                         AvahiResolverEvent event, const char* name, const char*, const char*, const char*,
                         const AvahiAddress*, std::uint16_t, AvahiStringList*, AvahiLookupResultFlags,
                         void* self) {
        if (event == AVAHI_RESOLVER_FOUND)
            static_cast<AvahiFinder*>(self)->m_found.insert(name);
        avahi_service_resolver_free(resolver);
    }

    template <class Condition>
    void awaitOrFail(Condition condition, const char* what) {
        for (const auto end = Clock::now() + 5s; !condition();) {
            if (Clock::now() > end)
                throw std::runtime_error(std::string(what) + " does not start");
            std::this_thread::sleep_for(20ms);
        }
    }

    pid_t m_daemon = 0;
    AvahiSimplePoll* m_poll = nullptr; // these go with the process
    AvahiClient* m_client = nullptr;
    std::set<std::string> m_found;
};

} // namespace

DiscoveryImplementation avahi() {
    return {"Avahi, warm", 3, false, avahiHost, [] { return std::unique_ptr<Finder>(new AvahiFinder); }};
}

} // namespace bench
