#include <IniProfile/report.h>
#include <UdpSocket/base/mutex.h>

#include <cstdio>
#include <set>

namespace iniprofile {

namespace {

constexpr std::size_t kMaxReports = 100; // lines that a process writes about its profiles

} // namespace

void reportOnce(const std::string& line, const std::string& subject) {
    using net::detail::Lock;
    using net::detail::Mutex;
    struct Written {
        Mutex mutex;
        std::set<std::string> subjects GUARDED_BY(mutex);
    };
    static auto& written = *new Written; // never destroyed: threads may read until the very end
    {
        Lock lock(written.mutex);
        if (written.subjects.size() == kMaxReports || !written.subjects.insert(subject).second)
            return;
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace iniprofile
