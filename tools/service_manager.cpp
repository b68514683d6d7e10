#include "service_manager.h"

#include "output.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

/// A watchdog is for one process: one that a watched program starts inherits its variables.
std::chrono::microseconds watchdogTime() {
    const std::string_view process = variable("WATCHDOG_PID");
    if (!process.empty() && process != std::to_string(::getpid()))
        return {};
    return std::chrono::microseconds(
        std::strtoll(std::string(variable("WATCHDOG_USEC")).c_str(), nullptr, 10));
}

} // namespace

ServiceManager::ServiceManager() {
    const std::string_view path = variable("NOTIFY_SOCKET");
    if ((!path.starts_with('/') && !path.starts_with('@')) || path.size() >= sizeof m_address.sun_path)
        return;
    m_socket = net::detail::Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    m_address.sun_family = AF_UNIX;
    path.copy(m_address.sun_path, path.size());
    if (path.starts_with('@'))
        m_address.sun_path[0] = '\0'; // an abstract name, which has no terminator either
    m_length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (path[0] == '/' ? 1 : 0));
    if (const auto allowed = watchdogTime(); allowed.count() > 0)
        m_period = std::chrono::ceil<std::chrono::milliseconds>(allowed / 2);
}

void ServiceManager::tell(const std::string& state) const {
    if (m_socket.isOpen() && ::sendto(m_socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
                                      reinterpret_cast<const sockaddr*>(&m_address), m_length) == -1)
        ::tell(std::string("radarctl: the service manager cannot be told: ") + std::strerror(errno) + "\n");
}

void ServiceManager::keepAlive() {
    const auto now = std::chrono::steady_clock::now();
    if (m_period.count() < 0 || now < m_due)
        return;
    tell("WATCHDOG=1");
    m_due = now + m_period;
}
