#include <RadarWatch/system_file.h>

#include <UdpSocket/base/descriptor.h>

#include <fcntl.h>

#include <cerrno>

namespace radar::detail {

std::string readSystemFile(const char* path) {
    const net::detail::Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count > 0)
            text.append(buffer, static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return text;
    }
}

} // namespace radar::detail
