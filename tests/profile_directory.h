/// @file
/// A profile.ini of a test's own.
#pragma once

#include "test.h"
#include <iterator>

/// An empty directory, named by INIPROFILE_DIR as long as the object lives.
class ProfileDirectory {
public:
    explicit ProfileDirectory(const std::string& profile = "") {
        std::string name = std::filesystem::temp_directory_path() / "profile-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        m_path = name;
        ::setenv("INIPROFILE_DIR", name.c_str(), 1);
        if (!profile.empty())
            write(profile);
    }
    ~ProfileDirectory() {
        ::unsetenv("INIPROFILE_DIR");
        std::filesystem::remove_all(m_path);
    }
    ProfileDirectory(const ProfileDirectory&) = delete;
    ProfileDirectory& operator=(const ProfileDirectory&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    void write(const std::string& text, const std::string& file = "profile.ini") const {
        std::ofstream(m_path / file, std::ios::binary) << text;
    }
    /// @param file in the directory, or anywhere by its whole path
    std::string read(const std::string& file) const {
        std::ifstream stream(m_path / file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    std::filesystem::path m_path;
};
