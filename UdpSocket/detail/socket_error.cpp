#include <UdpSocket/detail/socket_error.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace net::detail {

void reportSocketError(const SourceSite& site, const char* address, int port, const char* call) {
    const int code = errno;
    std::fprintf(stderr, "SocketError<%s,%s,%d,(%s,%d)>:\n\tfunction[%s],code[%d,%s]\n", site.file,
                 site.function, site.line, address, port, call, code, std::strerror(code));
    errno = code;
}

} // namespace net::detail
