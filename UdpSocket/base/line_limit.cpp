#include <UdpSocket/base/line_limit.h>

#include <cstdarg>
#include <utility>

namespace net::detail {

StaticMutex LineLimit::s_mutex;

bool LineLimit::admit(unsigned long& leftOut) {
    const auto now = std::chrono::steady_clock::now();
    Lock lock(s_mutex);
    if (now - m_second >= std::chrono::seconds(1)) {
        m_second = now;
        m_printed = 0;
    }
    if (m_printed >= m_perSecond) {
        ++m_leftOut;
        return false;
    }
    ++m_printed;
    leftOut = std::exchange(m_leftOut, 0);
    return true;
}

void LineLimit::tell(std::FILE* stream, unsigned long leftOut) {
    if (leftOut > 0)
        std::fprintf(stream, "(%lu lines like the next one were left out)\n", leftOut);
}

void LineLimit::print(std::FILE* stream, const char* format, ...) {
    unsigned long leftOut = 0;
    if (!admit(leftOut))
        return;
    tell(stream, leftOut);
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stream, format, arguments);
    va_end(arguments);
}

} // namespace net::detail
