/// @file
/// The one line in which a failed socket call is reported.
#pragma once

#include <UdpSocket/base/line_limit.h>

#include <string>
#include <utility>

namespace net::detail {

/// A place that reports a failing call. All four are identifiers that readers of the lines rely on: they stay
/// as they are wherever the code stands.
struct ReportSite {
    const char* file;
    const char* function;
    int line;
    const char* call;
};

/// Reports the failed calls of one object, by the address and port that it was configured with. Any thread
/// may report; set() is for one thread while no other reports.
class ErrorReporter {
public:
    ErrorReporter() = default;
    /// @param port host order
    ErrorReporter(std::string address, unsigned short port) : m_address(std::move(address)), m_port(port) {}

    void set(std::string address, unsigned short port) {
        m_address = std::move(address);
        m_port = port;
    }
    const std::string& address() const { return m_address; }
    unsigned short port() const { return m_port; }

    /// Writes the socket error line with the current errno to standard error; errno is kept.
    void report(const ReportSite& site) const { write(site, nullptr); }
    /// The same, as far as @p limit lets it through: for what others can repeat.
    void report(const ReportSite& site, LineLimit& limit) const { write(site, &limit); }

private:
    void write(const ReportSite& site, LineLimit* limit) const;

    std::string m_address;
    unsigned short m_port = 0; // host order
};

} // namespace net::detail
