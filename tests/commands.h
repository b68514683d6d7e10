/// @file
/// Commands of a test's own.
#pragma once

#include "profile_directory.h"

/// Shell scripts that are found before the system's commands as long as the object lives.
class Commands : public ProfileDirectory {
public:
    Commands() { ::setenv("PATH", (path().string() + ":" + m_before).c_str(), 1); }
    ~Commands() { ::setenv("PATH", m_before.c_str(), 1); }

    void add(const std::string& name, const std::string& script) const {
        write("#!/bin/sh\n" + script + "\n", name);
        std::filesystem::permissions(path() / name, std::filesystem::perms::owner_all);
    }

private:
    const std::string m_before = std::getenv("PATH");
};
