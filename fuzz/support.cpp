#include "support.h"

#include <lab/private_network.h>

#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

std::atomic<unsigned int> fuzz::sent = 0;

// The linker puts it in the place of sendto.
extern "C" ssize_t countSent(int, const void*, size_t length, int, const sockaddr*,
                             socklen_t) __asm__("__wrap_sendto");
extern "C" ssize_t countSent(int, const void*, size_t length, int, const sockaddr*, socklen_t) {
    ++fuzz::sent;
    return static_cast<ssize_t>(length);
}

void fuzz::setProfile(const char* text) {
    const std::filesystem::path directory = "/run/fuzz"; // private, as /run is
    std::filesystem::create_directories(directory);
    std::ofstream(directory / "profile.ini") << text;
    ::setenv("INIPROFILE_DIR", directory.c_str(), 1);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    lab::enterPrivateNetwork();
    return 0;
}
