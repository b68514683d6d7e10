#include "looping_profile.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

constexpr const char* kDirectory = "INIPROFILE_DIR";
constexpr const char* kFile = "profile.ini";

} // namespace

LoopingProfile::LoopingProfile() : m_directory(std::filesystem::temp_directory_path() / "radarctl-XXXXXX") {
    if (::mkdtemp(m_directory.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(),
                                "no directory for settings in " + m_directory);
    const char* given = std::getenv(kDirectory);
    const std::filesystem::path original =
        given != nullptr && *given != '\0' ? std::filesystem::path(given) / kFile : kFile;
    std::ofstream copy(std::filesystem::path(m_directory) / kFile, std::ios::binary);
    std::ifstream file;
    std::error_code ignored;
    if (!std::filesystem::is_fifo(original, ignored)) // whose writer would be waited for
        file.open(original, std::ios::binary);
    if (file.peek() != std::ifstream::traits_type::eof())
        copy << file.rdbuf();
    copy << "\n[Local]\nMulticastLoop = true\n"; // of a key that stands twice the last one counts
    copy.close();
    if (!copy || ::setenv(kDirectory, m_directory.c_str(), 1) != 0) {
        const int error = errno;
        std::filesystem::remove_all(m_directory);
        throw std::system_error(error, std::generic_category(), "settings in " + m_directory);
    }
}

LoopingProfile::~LoopingProfile() {
    std::error_code ignored; // nothing is left to do about it
    std::filesystem::remove_all(m_directory, ignored);
}
