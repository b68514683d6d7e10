#include <IniProfile/report.h>
#include <UdpSocket/base/process.h>

#include <cstdio>
#include <set>

namespace iniprofile {

namespace {

using net::detail::Lock;

constexpr std::size_t kMaxReports = 100; // lines that a process writes about its profiles

net::detail::StaticMutex s_mutex;

/// The subjects of the lines written. Never destroyed: threads may read until the very end.
std::set<std::string>& written() REQUIRES(s_mutex) {
    static std::set<std::string>& subjects = *new std::set<std::string>;
    return subjects;
}

} // namespace

void reportOnce(const std::string& line, const std::string& subject) {
    {
        Lock lock(s_mutex);
        if (written().size() == kMaxReports || !written().insert(subject).second)
            return;
    }
    std::fprintf(stderr, "%s\n", line.c_str());
}

} // namespace iniprofile
