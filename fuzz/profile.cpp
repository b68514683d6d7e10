// The text of a profile.ini, and a look-up of either kind: each reads it again.
#include "support.h"

#include <IniProfile/iniprofile.h>

#include <sys/mman.h>
#include <unistd.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = ::memfd_create("profile.ini", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    fuzz::require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    const std::string text = GetProfileInfo("Local", "IP", "default", 16, path.c_str());
    fuzz::require(text.size() <= 16 && text.find_first_of(std::string("\n\0", 2)) == std::string::npos);
    GetProfileInfo_bool("Radar", "TCPService", "", path.c_str());
    return 0;
}
