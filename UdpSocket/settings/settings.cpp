#include <UdpSocket/settings/settings.h>

#include <IniProfile/iniprofile.h>
#include <UdpSocket/base/escape.h>
#include <UdpSocket/udpsocket.h>

#include <netinet/in.h>

#include <cstdio>

namespace net::settings {

namespace {

constexpr const char* kFile = "profile.ini";
constexpr int kMaxAddress = 16; // characters
constexpr int kMaxNetName = 64;

/// Empty text is 0; what is no address, or all ones, is 0 too, with one line on standard error.
unsigned int toAddress(const char* section, const char* key, const std::string& text) {
    if (text.empty())
        return 0;
    const unsigned int address = transAddr(text.c_str());
    if (address != INADDR_NONE)
        return address;
    std::fprintf(stderr, "%s: [%s] %s = %s is no IPv4 address, taken as 0.0.0.0\n", kFile, section, key,
                 detail::escaped(text).c_str());
    return 0;
}

} // namespace

unsigned int radarAddress() {
    return toAddress("Radar", "IP", GetProfileInfo("Radar", "IP", "", kMaxAddress, kFile));
}

bool tcpService() {
    return GetProfileInfo_bool("Radar", "TCPService", "", kFile);
}

std::string netName() {
    return GetProfileInfo("Local", "NetName", "", kMaxNetName, kFile);
}

LocalAddress localAddress() {
    const std::string text = GetProfileInfo("Local", "IP", "0.0.0.0", kMaxAddress, kFile);
    return {text, toAddress("Local", "IP", text)};
}

bool multicastLoop() {
    return GetProfileInfo_bool("Local", "MulticastLoop", "false", kFile);
}

} // namespace net::settings
