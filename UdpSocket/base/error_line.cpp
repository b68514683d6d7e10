#include <UdpSocket/base/error_line.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace net::detail {

void ErrorReporter::write(const ReportSite& site, LineLimit* limit) const {
    const int code = errno;
    unsigned long leftOut = 0;
    if (limit != nullptr && !limit->admit(leftOut)) {
        errno = code;
        return;
    }
    LineLimit::tell(stderr, leftOut);
    std::fprintf(stderr, "SocketError<%s,%s,%d,(%s,%d)>:\n\tfunction[%s],code[%d,%s]\n", site.file,
                 site.function, site.line, m_address.c_str(), m_port, site.call, code, std::strerror(code));
    errno = code;
}

} // namespace net::detail
